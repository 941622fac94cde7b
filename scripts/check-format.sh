#!/usr/bin/env bash
# Fails when a C++ source in the repository is not formatted as .clang-format says.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror
echo "clang-format: every source is formatted"
