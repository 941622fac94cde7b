#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, build-fuzz/) and runs each for SECONDS (default
# 20) on a copy of its seed corpus (tests/fuzz/corpus/<target>/). A finding stops the run
# with libFuzzer's report and the input that caused it (build-fuzz/findings/); what the
# runs add to the corpus stays in build-fuzz/corpus/ for the next run.
# Usage: scripts/fuzz.sh [SECONDS [TARGET...]]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
shift || true
dir=build-fuzz
args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DFLOWEXPORT_FUZZ=ON
      -DBUILD_TESTING=OFF -DFLOWEXPORT_BENCH=OFF)
if [ ! -f "$dir/CMakeCache.txt" ] || ! cmake -S . -B "$dir" -G Ninja "${args[@]}" >&2; then
  scripts/install-deps.sh >&2
  cmake -S . -B "$dir" -G Ninja "${args[@]}" >&2
fi
cmake --build "$dir" --target fuzz >&2
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(config_fuzz message_builder_fuzz options_records_fuzz stats_reader_fuzz
           state_file_fuzz control_request_fuzz netlink_fuzz packet_parser_fuzz)
fi
mkdir -p "$dir/findings"
for t in "${targets[@]}"; do
  work="$dir/corpus/$t"
  mkdir -p "$work"
  cp -n tests/fuzz/corpus/"$t"/* "$work"/ 2>/dev/null || true
  # The shipped configurations seed the configuration loader too.
  if [ "$t" = config_fuzz ]; then cp -n agent/*.yaml "$work"/; fi
  echo "== $t: ${seconds} s" >&2
  # One worker: the machine has two cores and CI runs beside it.
  "$dir/tests/fuzz/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="$dir/findings/$t-" -print_final_stats=1 "$work" 2>"$dir/$t.log" || {
    tail -n 40 "$dir/$t.log" >&2
    echo "fuzz: $t found a failure; the input is in $dir/findings/" >&2
    exit 1
  }
  grep -E "stat::number_of_executed_units|stat::peak_rss_mb" "$dir/$t.log" | sed "s/^/$t /" >&2
done
