#!/usr/bin/env bash
# Configures and builds the tree; prints the build directory on stdout (everything else
# goes to stderr). Usage: scripts/build.sh [--sanitize | --release | --tsan]
# Build directories: build/ (default, RelWithDebInfo), build-asan/ (--sanitize: ASan +
# UBSan), build-rel/ (--release: Release, as packagers build), build-tsan/ (--tsan:
# ThreadSanitizer, only the tests whose threads or processes run concurrently).
# The Debian packages are installed first on a fresh tree, or when configuring fails.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=build
args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
targets=()
for a in "$@"; do
  case "$a" in
    --sanitize) dir=build-asan; args=(-DCMAKE_BUILD_TYPE=Debug -DFLOWEXPORT_SANITIZE=ON) ;;
    --release) dir=build-rel; args=(-DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF) ;;
    --tsan)
      dir=build-tsan
      args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DFLOWEXPORT_TSAN=ON -DFLOWEXPORT_BENCH=OFF)
      targets=(--target stova_test config_test agent_test nameservice_e2e_test flowexportd) ;;
    *) echo "unknown option $a" >&2; exit 2 ;;
  esac
done
if [ ! -f "$dir/CMakeCache.txt" ] || ! cmake -S . -B "$dir" -G Ninja "${args[@]}" >&2; then
  scripts/install-deps.sh >&2
  cmake -S . -B "$dir" -G Ninja "${args[@]}" >&2
fi
cmake --build "$dir" "${targets[@]}" >&2
echo "$dir"
