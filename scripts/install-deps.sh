#!/usr/bin/env bash
# Installs every Debian package that the build, the tests and the benchmarks need.
# Idempotent: does nothing when everything is present. Runs as root, or through sudo.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang-format clang libclang-rt-dev
  libgtest-dev libgmock-dev libyaml-cpp-dev libsystemd-dev libmnl-dev dpkg-dev file adduser
  libcap2-bin
  tshark libfixbuf-tools nfdump pmacct
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
echo "Installing: ${missing[*]}"
# tshark asks whether non-root users may capture; answer "no" without a prompt.
echo "wireshark-common wireshark-common/install-setuid boolean false" | $sudo debconf-set-selections
$sudo env DEBIAN_FRONTEND=noninteractive apt-get update -q
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
