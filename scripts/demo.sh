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
# The RTC write is left out on the host: the demo must not change a real clock.
$q --board "$board" rtc show
$q --board "$board" rtc accuracy-test
$q --board "$board" --output-format=json rtc show
$q --board "$board" cpu info
$q --board "$board" memory dimms
$q --board "$board" memory testable
$q --board "$board" memory test marchc testable
$q --board "$board" pci tree
$q --board "$board" i2c list
$q --board "$board" sata ports
$q --board "$board" stability --power 16 --instances 2
$q error 0xCA080E05 "rate isn't support"
