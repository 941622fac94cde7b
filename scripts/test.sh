#!/usr/bin/env bash
# Installs dependencies, builds and runs the whole test suite.
# Usage: scripts/test.sh [--sanitize | --tsan]
#   --sanitize  everything under AddressSanitizer + UndefinedBehaviorSanitizer
#   --tsan      the tests whose threads or processes run concurrently (the statistics
#               table's readers, the name resolver's workers, the control socket, the
#               daemon's lookups) under ThreadSanitizer; any report fails them
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$(scripts/build.sh "$@" | tail -n 1)
filter=()
if [ "${1:-}" = "--tsan" ]; then
  filter=(-R "StovaTable|NameResolver|ConfigSmResolution|ControlServer|NameService")
  export TSAN_OPTIONS="halt_on_error=1 exitcode=66 second_deadlock_stack=1"
fi
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" --timeout 300 "${filter[@]}"
