#!/usr/bin/env bash
# quarn i2c end to end on the virtual board: output, JSON, exit status.
set -u
q=$1
. "$(dirname "$0")/../lib/check.sh"

check read-by-address 0 '0000: 29 34 ' "$q" --board virtual i2c read 0:0x98 0 1
check read-json 0 '{"command":"i2c read","board":"virtual","status":"pass","result":{"device":"0:0x98","start":0,"count":2,"values":[41,52]}}' \
  "$q" --board virtual --output-format=json i2c read 0:0x98 0 1
check read-spd-page1 0 "$(printf '0000: 80 ce 01 18 24 3a 1b 00 00 4d 33 39 33 41 32 4b \n0010: 34 ')" \
  "$q" --board virtual i2c read spd-dimm0 0x140 0x150
check route 0 'pch-smbus->Bus0->mux0->Bus6->mux1->Bus7->bp-vpd' "$q" --board virtual i2c route bp-vpd
check mux-test 0 'mux test pass' "$q" --board virtual i2c mux-test mux0
check mux-test-type 1 'I2CDAPI::MUX_Test -> I2CDDAPI::mux_test: "Type is not match - Type is not MUX"' \
  "$q" --board virtual i2c mux-test max6657
check write-read-test 0 'write/read test pass' "$q" --board virtual i2c write-read-test spd-dimm1
check write 0 'wrote 2 value(s) to vpd0' "$q" --board virtual i2c write vpd0 0x100 0x41 0x42
check no-device 1 'I2CDAPI::Read -> I2CDDAPI::read: "No I2C device - by well_know_name"' \
  "$q" --board virtual i2c read nothing 0
check bad-usage 2 'quarn: usage: quarn i2c read NAME|BUS:ADDR START [END]' "$q" --board virtual i2c read vpd0
echo "$pass passed, $fail failed"
[ "$fail" = 0 ]
