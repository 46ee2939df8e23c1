#!/usr/bin/env bash
# Installs, with apt-get, the Debian packages a task needs, and only those that are
# missing. Safe to run again. The other scripts call it; no other script installs.
#
#   scripts/setup.sh            building and testing: the debug, release, asan and tsan presets
#   scripts/setup.sh clang      and clang: the clang preset (it builds the benchmarks too,
#                               so `scripts/setup.sh clang bench` for it)
#   scripts/setup.sh bench      and Google Benchmark, gnuplot: the bench preset, scripts/bench.sh
#   scripts/setup.sh fuzz       and clang with libFuzzer: the fuzz preset, scripts/fuzz.sh
#   scripts/setup.sh package    and doxygen, debhelper, lintian: scripts/ci-package.sh
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config make binutils python3
  libsqlite3-dev sqlite3 libfmt-dev
  libcli11-dev nlohmann-json3-dev help2man
  libgtest-dev libgmock-dev
)
for group in "$@"; do
  case "$group" in
    clang) packages+=(clang) ;;
    bench) packages+=(libbenchmark-dev gnuplot-nox liblmdb-dev libleveldb-dev) ;;
    fuzz) packages+=(clang libclang-rt-14-dev llvm) ;;
    package) packages+=(doxygen dpkg-dev debhelper lintian) ;;
    *)
      echo "usage: $0 [clang] [bench] [fuzz] [package]" >&2
      exit 2
      ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
