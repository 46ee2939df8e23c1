#!/usr/bin/env bash
# Installs, with apt-get, the Debian packages that building and testing need,
# and only those that are missing. Safe to run again.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config
  libsqlite3-dev sqlite3 libfmt-dev
  libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  # Only the benchmarks link these: changes per second beside LMDB and LevelDB.
  liblmdb-dev libleveldb-dev
  binutils help2man
  make doxygen dpkg-dev debhelper lintian
)

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
