#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs every test in each preset, and
# proves the device build (Android.bp, scripts/device-build.sh).
# Usage: scripts/test.sh [preset...]   (default: default asan tsan system-log device readme)
# "device" is the device build, "readme" runs the README's command blocks
# (scripts/readme-test.sh); the others are presets of CMakePresets.json.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
presets=("$@")
((${#presets[@]})) || presets=(default asan tsan system-log device readme)
jobs=$(nproc)

for preset in "${presets[@]}"; do
  echo "=== preset ${preset}"
  case "${preset}" in
    device) scripts/device-build.sh; continue ;;
    readme) scripts/readme-test.sh; continue ;;
  esac
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}" -j "${jobs}"
  ctest --preset "${preset}"
done
