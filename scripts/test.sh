#!/usr/bin/env bash
# Installs dependencies, builds and runs the whole test suite.
# Usage: scripts/test.sh [--sanitize]   (--sanitize: AddressSanitizer + UndefinedBehaviorSanitizer)
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$(scripts/build.sh "$@" | tail -n 1)
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" --timeout 300
