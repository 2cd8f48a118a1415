#!/usr/bin/env bash
# quarn psu, temp and bbu end to end on the virtual board: output, JSON, exit status.
set -u
q=$1
. "$(dirname "$0")/../lib/check.sh"

check psu-get 0 'psu0_fan1: 5792 (range 0-16000)' "$q" --board virtual psu get psu0_fan1
check psu-get-json 0 '{"command":"psu get","board":"virtual","status":"pass","result":{"item":"psu0_temp0","value":"33.000000"}}' \
  "$q" --board virtual --output-format=json psu get psu0_temp0
check psu-set-led 0 'psu0_rtr_led set to off' "$q" --board virtual psu set psu0_rtr_led off
check psu-unknown-supply 1 'PSUDAPI::getDataByElement -> PSUDDAPI::getFanSpeed: "No device is found - psu7"' \
  "$q" --board virtual psu get psu7_fan0
check psu-set-not-number 1 'value is not a number (stoi): fast' "$q" --board virtual psu set psu0_fan0 fast
check temp-get-negative-max6657 0 'max6657: 41 C' "$q" --board virtual temp get max6657
check temp-limits 0 "$(printf 'high0: 70\nlow0: 0\nhigh1: Not Support\nlow1: Not Support')" \
  "$q" --board virtual temp limits max6657
check temp-dimm-refuses 1 'TEMPERATUREDAPI::Set_Data_By_Name -> TEMPERATUREDDAPI::Set_i2c_Data_By_Name -> TEMPERATUREDDAPI::Get_i2c_Set_Threshold_High0_List -> I2CDAPI::MUX_Test -> I2CDAPI::MUX_Test: "Write Temperature High Limit not support"' \
  "$q" --board virtual temp set-limit dimm0-temp high 70
check bbu-read 0 '0x0d: 0x5f' "$q" --board virtual bbu read 0x0d
check bbu-discharge 0 'bbu0: discharging' "$q" --board virtual bbu discharge
check bbu-unknown 1 'TEMPERATUREDAPI::Get_Current_Temperature: "There is no match name."' "$q" --board virtual bbu report bbu9
echo "$pass passed, $fail failed"
[ "$fail" = 0 ]
