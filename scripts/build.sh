#!/usr/bin/env bash
# Configures and builds the tree; prints the build directory on stdout (everything else
# goes to stderr). Usage: scripts/build.sh [--sanitize]
# Build directories: build/ (default), build-asan/ (--sanitize: ASan + UBSan).
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
scripts/install-deps.sh >&2
cmake -S . -B "$dir" -G Ninja "${args[@]}" >&2
cmake --build "$dir" >&2
echo "$dir"
