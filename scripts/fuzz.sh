#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (ASan + UBSan) in build/fuzz and runs
# each one from its committed seed corpus for a bounded time.
#
#   scripts/fuzz.sh                   every target for 20 s (what CI runs)
#   scripts/fuzz.sh 600 startup       one target for ten minutes, by hand
#
# Inputs found along the way are kept in build/fuzz/corpus/<target> (the committed seeds
# in fuzz/corpus/ stay small; copy a good find there by hand). A crash or a broken
# property leaves its input in build/fuzz/artifacts/ and fails the script; replay it
# with build/fuzz/fuzz_<target> <that file>.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-20}"
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then targets=(path_text record deserialize startup); fi

# The normal build's packages, then clang and its fuzzer runtime: only this script needs
# them, so only this script installs them.
scripts/setup.sh
missing=()
for p in clang libclang-rt-14-dev llvm; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -ne 0 ]; then
  echo "fuzz: installing ${missing[*]}"
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake -S fuzz -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build/fuzz -j "$(nproc)"

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
  if TMPDIR="$scratch" "build/fuzz/fuzz_$target" "$corpus" "fuzz/corpus/$target" \
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
