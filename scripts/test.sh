#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs every test.
#   scripts/test.sh            the debug build
#   scripts/test.sh asan       AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh tsan       ThreadSanitizer
#   scripts/test.sh clang      clang with its thread-safety analysis, warnings as errors:
#                              builds everything, benchmarks included, and runs the
#                              manager and events suites
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-debug}"
case "$preset" in
  clang) scripts/setup.sh clang bench ;;
  *) scripts/setup.sh ;;
esac
cmake --preset "$preset"
cmake --build --preset "$preset" -j "$(nproc)"
ctest --preset "$preset"
