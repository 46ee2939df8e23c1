#!/usr/bin/env bash
# Installs what is missing, builds the release configuration and runs the example device
# program twice on build/demo/device_settings.db: the second run shows that the first
# run's change persisted. Delete that file to start over.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target device_settings
mkdir -p build/demo
cd build/demo
for run in 1 2; do
  echo "=== run $run: device_settings ==="
  ../release/examples/device_settings
  echo
done
