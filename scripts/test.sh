#!/usr/bin/env bash
# Installs dependencies, builds and runs the whole test suite, then says which layers ran
# (unit, scenario, e2e, kernel, package) and names every test that skipped itself.
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
  filter=(-R "StovaTable|NameResolver|ControlServer|NameService")
  export TSAN_OPTIONS="halt_on_error=1 exitcode=66 second_deadlock_stack=1"
fi
junit="$PWD/$dir/Testing/results.xml"
rc=0
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" --timeout 300 --output-junit "$junit" \
  "${filter[@]}" || rc=$?

# The layers: per label, the tests that ran and the tests that skipped themselves.
skipped=$(grep -o '<testcase name="[^"]*"[^>]*status="notrun"' "$junit" 2>/dev/null |
  sed 's/<testcase name="\([^"]*\)".*/\1/' || true)
echo "Layers:"
for label in unit scenario e2e kernel package; do
  names=$(ctest --test-dir "$dir" -N -L "^$label\$" "${filter[@]}" | sed -n 's/^ *Test *#[0-9]*: //p')
  total=$(printf '%s' "$names" | grep -c . || true)
  skip=0
  if [ -n "$skipped" ] && [ "$total" -gt 0 ]; then
    skip=$(printf '%s\n' "$names" | grep -cxF -f <(printf '%s\n' "$skipped") || true)
  fi
  printf '  %-9s %4d ran, %4d skipped\n' "$label" $((total - skip)) "$skip"
done
if [ -n "$skipped" ]; then
  echo "Skipped (each says why in $dir/Testing/Temporary/LastTest.log):"
  printf '  %s\n' $skipped
fi
exit "$rc"
