#!/usr/bin/env bash
# Configures and builds the tree. Usage: scripts/build.sh [--sanitize] [--release]
# Build directories: build/ (default), build-asan/ (--sanitize).
set -euo pipefail
cd "$(dirname "$0")/.."
dir=build
args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
for a in "$@"; do
  case "$a" in
    --sanitize) dir=build-asan; args=(-DCMAKE_BUILD_TYPE=Debug -DFLOWEXPORT_SANITIZE=ON) ;;
    *) echo "unknown option $a" >&2; exit 2 ;;
  esac
done
scripts/install-deps.sh
cmake -S . -B "$dir" -G Ninja "${args[@]}" >/dev/null
cmake --build "$dir"
echo "$dir"
