#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (ASan + UBSan; the fuzz preset, in
# build/fuzz) and runs each one from its committed seed corpus for a bounded time.
#
#   scripts/fuzz.sh                   every target for 20 s (what CI runs)
#   scripts/fuzz.sh 600 startup       one target for ten minutes, by hand
#
# Inputs found along the way are kept in build/fuzz/corpus/<target> (the committed seeds
# in fuzz/corpus/ stay small; copy a good find there by hand). A crash or a broken
# property leaves its input in build/fuzz/artifacts/ and fails the script; replay it
# with build/fuzz/fuzz/fuzz_<target> <that file>.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-20}"
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then targets=(path_text record deserialize startup); fi

scripts/setup.sh fuzz
# A build/fuzz of the former stand-alone fuzz/ project is configured afresh.
if grep -qs '^CMAKE_HOME_DIRECTORY:INTERNAL=.*/fuzz$' build/fuzz/CMakeCache.txt; then
  rm -rf build/fuzz/CMakeCache.txt build/fuzz/CMakeFiles
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

# The start-up target writes a database file per input: memory is faster than disk.
scratch=build/fuzz/tmp
if [ -d /dev/shm ] && [ -w /dev/shm ]; then scratch=/dev/shm; fi
mkdir -p build/fuzz/artifacts "$scratch"
export ASAN_OPTIONS="${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

status=0
for target in "${targets[@]}"; do
  corpus="build/fuzz/corpus/$target"
  log="build/fuzz/$target.log"
  mkdir -p "$corpus"
  if TMPDIR="$scratch" "build/fuzz/fuzz/fuzz_$target" "$corpus" "fuzz/corpus/$target" \
      -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
      -artifact_prefix="build/fuzz/artifacts/$target-" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz $target: ${runs:-?} inputs in ${seconds} s, no failure"
  else
    echo "fuzz $target: FAILED (log: $log)"
    grep -E '^==[0-9]+==|^SUMMARY|^artifact_prefix|Test unit written' "$log" | head -20 || true
    tail -40 "$log"
    status=1
  fi
done
exit $status
