#!/usr/bin/env bash
# The main job: installs what is needed, builds, and runs the diagnostics on the
# virtual board (add --board host to run them on this machine instead).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh
q=build/quarn
board=${QUARN_BOARD:-virtual}
set -x
$q --board "$board" rtc show
$q --board "$board" rtc set 2024-02-29 THU 23:59:58
$q --board "$board" rtc accuracy-test
$q --board "$board" --output-format=json rtc show
$q error 0xCA080E05 "rate isn't support"
