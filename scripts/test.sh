#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs every test in each preset, and
# proves the device build (Android.bp, scripts/device-build.sh).
# Usage: scripts/test.sh [preset...]   (default: default asan tsan system-log device)
# "device" is the device build; the others are presets of CMakePresets.json.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
presets=("$@")
((${#presets[@]})) || presets=(default asan tsan system-log device)
jobs=$(nproc)

for preset in "${presets[@]}"; do
  echo "=== preset ${preset}"
  if [ "${preset}" = device ]; then
    scripts/device-build.sh
    continue
  fi
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}" -j "${jobs}"
  ctest --preset "${preset}"
done
