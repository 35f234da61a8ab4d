#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build/fuzz and runs each for N seconds
# (default 60), starting from a copy of fuzz/corpus/<mode> (the seed corpus stays as it
# is; new inputs collect under build/fuzz/corpus-<mode>). Crashes land in build/fuzz.
# Modes: raw and structured (the sliding-window receive path), wide (a core with the wide
# window on, either role), firmware (a firmware's UART
# input: SLIP, then the device layer), FUZZ_JOBS at a time (default: the CPUs).
#   fuzz/run.sh 30
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQLT_BUILD_FUZZERS=ON -DQLT_SANITIZE=address,undefined \
  -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link -DCMAKE_C_FLAGS=-fsanitize=fuzzer-no-link \
  -DQLT_BUILD_TESTS=OFF -DQLT_BUILD_BENCHMARKS=OFF -DQLT_BUILD_TOOLS=OFF -DQLT_WITH_BLUEZ=OFF >/dev/null
cmake --build "$build" --target qlt_fuzz_slidewindow_raw qlt_fuzz_slidewindow_structured \
  qlt_fuzz_slidewindow_wide qlt_fuzz_firmware_input

# Each mode in a function of its own, FUZZ_JOBS at a time (default: the CPUs); the reports
# follow in order once all have ended.
fuzz_one() {
  local mode=$1 target=qlt_fuzz_slidewindow_$1
  [ "$mode" = firmware ] && target=qlt_fuzz_firmware_input
  local work="$build/corpus-$mode" artifacts="$build/artifacts-$mode"
  mkdir -p "$work"
  rm -rf "$artifacts" && mkdir -p "$artifacts"
  cp -n fuzz/corpus/$mode/* "$work"/ 2>/dev/null || true
  echo "=== fuzzing $mode for $seconds s ==="
  local rc=0
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
    -max_len=1024 -artifact_prefix="$artifacts/" "$work" >"$build/fuzz-$mode.log" 2>&1 || rc=$?
  grep -E 'stat::number_of_executed_units|ERROR|SUMMARY' "$build/fuzz-$mode.log" || true
  if [ "$rc" -ne 0 ] || [ -n "$(ls -A "$artifacts")" ]; then
    echo "fuzzing $mode failed (exit $rc); see $build/fuzz-$mode.log and $artifacts"
    touch "$build/fuzz-$mode.failed"
  fi
}

modes=(raw structured wide firmware)
jobs=${FUZZ_JOBS:-$(nproc 2>/dev/null || echo 1)}
for mode in "${modes[@]}"; do
  rm -f "$build/fuzz-$mode.failed"
  while (($(jobs -rp | wc -l) >= jobs)); do wait -n || true; done
  fuzz_one "$mode" >"$build/fuzz-$mode.report" 2>&1 &
done
wait
status=0
for mode in "${modes[@]}"; do
  cat "$build/fuzz-$mode.report"
  if [ -e "$build/fuzz-$mode.failed" ]; then status=1; fi
done
exit $status
