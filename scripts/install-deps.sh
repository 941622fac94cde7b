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

# promtool, which checks the Prometheus output in the tests, comes from Debian's
# prometheus package unpacked into .cache/tools: installing the package would start a
# Prometheus server on the machine.
promtool_dir="$(cd "$(dirname "$0")/.." && pwd)/.cache/tools"
install_promtool() {
  command -v promtool >/dev/null && return 0
  [ -x "$promtool_dir/promtool" ] && return 0
  local tmp
  tmp=$(mktemp -d)
  if (cd "$tmp" && apt-get download -q prometheus >/dev/null 2>&1 &&
      dpkg-deb -x prometheus_*.deb unpacked); then
    install -D -m 0755 "$tmp/unpacked/usr/bin/promtool" "$promtool_dir/promtool"
  else
    echo "install-deps: could not fetch promtool (the Prometheus checks will be skipped)" >&2
  fi
  rm -rf "$tmp"
}

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  install_promtool
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
echo "Installing: ${missing[*]}"
# tshark asks whether non-root users may capture; answer "no" without a prompt.
echo "wireshark-common wireshark-common/install-setuid boolean false" | $sudo debconf-set-selections
$sudo env DEBIAN_FRONTEND=noninteractive apt-get update -q
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
install_promtool
