#!/usr/bin/env bash
# The main job: installs what is missing, builds the release preset, and runs a short data-call
# bring-up with kelctl on its embedded simulated modem (tools/kelctl/bringup.kel): the modem's
# profiles, the carrier's APN configuration from data/carrier/apns-conf.xml, the attach,
# internet, IMS and emergency profiles, and the profiles again.
# Everything of the release preset is built (the library, the tools, their manual pages), so that
# vex-modemd, vex-modemctl and cmake --install build/release work afterwards.
# Options of the whole kelctl run may follow, e.g. scripts/run.sh --verbose for the library's log.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)"
exec build/release/tools/kelctl/kelctl --embedded "$@" run --echo tools/kelctl/bringup.kel
