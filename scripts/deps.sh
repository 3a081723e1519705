#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need, only where missing.
set -euo pipefail

# The device build (scripts/device-build.sh): mini-soong, which needs make and dpkg-dev; bpfmt
# from blueprint-tools; AOSP's liblog from android-liblog-dev, also for the system-log preset.
packages=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          libtinyxml2-dev nlohmann-json3-dev scdoc mini-soong blueprint-tools
          android-liblog-dev make dpkg-dev python3)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
fi
