#!/usr/bin/env bash
# Installs what is missing, builds the release configuration and shows settingsctl on
# build/demo/device.db: imports the example device configuration, lists it, changes a
# value, reads it back, dumps a subtree, backs the database up and restores it, and
# watches a few changes. Then runs the example device program once (the C++ API) on
# build/demo/device_settings.db. Safe to run again: the import puts the example
# configuration back.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target settingsctl device_settings
mkdir -p build/demo
cd build/demo
settingsctl=../release/tools/settingsctl/settingsctl

# Shows the command, runs it and passes on its exit status.
ctl() {
  echo "\$ settingsctl --db device.db $*"
  local status=0
  "$settingsctl" --db device.db "$@" || status=$?
  if [ "$status" -ne 0 ]; then echo "(exit status $status)"; fi
  echo
  return "$status"
}

ctl import ../../examples/device.json
ctl ls device
ctl set device/network/port 8081
ctl get device/network/port
ctl set device/firmware/version 9.9.9 || true  # read-only: refused
ctl dump device/network
ctl backup device-backup.db
ctl delete device/logging
ctl restore device-backup.db

echo "\$ settingsctl --db device.db watch device/network   (commands from standard input)"
"$settingsctl" --db device.db watch device/network <<'EOF'
set device/network/mtu 9000
create device/network/ntp pool.ntp.org
attr device/network/ntp --read-only=true
delete device/network/ntp --force
set device/network/mtu 1500
EOF
echo

echo "=== the C++ API: examples/device_settings ==="
../release/examples/device_settings device_settings.db
