#!/usr/bin/env bash
# quarn sas and quarn expander end to end on the virtual board: output, JSON, exit status.
set -u
q=$1
. "$(dirname "$0")/../lib/check.sh"

check temperature 0 '52 C' "$q" --board virtual sas temperature SAS1
check temperature-json 0 '{"command":"sas temperature","board":"virtual","status":"pass","result":{"controller":0,"celsius":52}}' \
  "$q" --board virtual --output-format=json sas temperature 0
contains list 0 'SAS1  IOC 0  0000:03:00.0  Rev 02  FW 15.0.0.0' "$q" --board virtual sas list
contains drives 0 'SAS1-DRIVE2  /dev/sdd  /dev/sg3' "$q" --board virtual sas drives SAS1
contains phys 0 'PHY0  UP       12G' "$q" --board virtual sas phys SAS1
contains phy-errors 0 'PHY7              0          0             0              0' "$q" --board virtual sas phy-errors SAS1
check clear-one 0 'PHY3 error counters cleared' "$q" --board virtual sas clear-phy-errors SAS1 3
check reset 0 'IOC 0 hard reset done' "$q" --board virtual sas reset SAS1
check loopback 0 'loopback test passed' "$q" --board virtual sas loopback SAS1
check set-address 0 'SAS address now 0x5000c50012345678' "$q" --board virtual sas set-address SAS1 5000C50012345678
check flash 0 'firmware now 16.0.10.0' "$q" --board virtual sas flash SAS1 /lib/firmware/sas3008/SAS3008_IT_16.00.10.00.bin
contains flash-missing-image 1 'SASDAPI::program SAS new firmware: "SAS FW programming fail"' \
  "$q" --board virtual sas flash SAS1 '/x; touch /tmp/quarn-sas-pwned'
[ -e /tmp/quarn-sas-pwned ] && { echo "FAIL image path ran a command"; fail=$((fail + 1)); }
check bad-name 1 'SASDAPI::getLogicalIDByName: "Bad parameter 5 - sas1"' "$q" --board virtual sas temperature sas1
check bad-number 1 'SASDAPI::getTemperature: "Bad parameter - Bad IOC logical ID"' "$q" --board virtual sas temperature 1
check bad-usage 2 'quarn: usage: quarn sas set-address IOC ADDRESS' "$q" --board virtual sas set-address SAS1

contains exp-list 0 'EXP1  ID 1   expander-0:1   edge expander  0x500605b0000273bf  24 PHYs  1 ports' \
  "$q" --board virtual expander list
contains exp-phys 0 'EXP0-PORT8    UP    12.0 Gbit  edge expander  0x500605b0000273bf' "$q" --board virtual expander phys EXP0
check exp-phy 0 'EXP0-PHY16    UP    12.0 Gbit  edge expander  0x500605b0000272bf' "$q" --board virtual expander phys exp0-phy16
contains exp-errors 0 'EXP1-PHY23            0              0             0              0' \
  "$q" --board virtual expander errors EXP1
check exp-clear 0 'PHY error counters cleared through the enclosure' "$q" --board virtual expander clear-errors EXP0
check exp-reset 0 'expander reset' "$q" --board virtual expander reset EXP1
check exp-unknown 1 'ExpanderDAPI::getLogicalIDByName -> ExpanderDDAPI::getLogicalIDByName: "unknown name - EXP7"' \
  "$q" --board virtual expander reset EXP7
echo "$pass passed, $fail failed"
[ "$fail" = 0 ]
