#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs every test in each preset.
# Usage: scripts/test.sh [preset...]   (default: default asan tsan)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
presets=("$@")
((${#presets[@]})) || presets=(default asan tsan)
jobs=$(nproc)

for preset in "${presets[@]}"; do
  echo "=== preset ${preset}"
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}" -j "${jobs}"
  ctest --preset "${preset}"
done

echo "=== README"
scripts/readme-test.sh
