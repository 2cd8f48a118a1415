#!/usr/bin/env bash
# quarn eth end to end on the virtual board: output, JSON, exit status.
set -u
q=$1
. "$(dirname "$0")/../lib/check.sh"

check mac 0 '00:0E:1E:D0:00:40' "$q" --board virtual eth mac eth4
check mac-json 0 '{"command":"eth mac","board":"virtual","status":"pass","result":{"name":"eth3","mac":"3C:FD:FE:C0:00:30"}}' \
  "$q" --board virtual --output-format=json eth mac eth3
check set-mac 0 'MAC address of eth0 is now 02:00:00:AA:BB:CC' "$q" --board virtual eth set-mac eth0 02:00:00:aa:bb:cc
check set-mac-usage 2 'quarn: MAC is six hexadecimal bytes, e.g. 00:1b:21:aa:bb:cc' "$q" --board virtual eth set-mac eth0 '02:00;reboot'
check eeprom 0 '000000: 00 1b 21 a0 00 10' "$q" --board virtual eth eeprom eth0 0 6
check link 0 'eth4: link Up, speed 10Gb' "$q" --board virtual eth link eth4
check firmware 0 '6.01 0x800035da 1.1747.0' "$q" --board virtual eth firmware eth3
contains selftest 0 'internal-loopback  pass (0)' "$q" --board virtual eth selftest eth1
contains loopback 0 'external loopback of eth0: ' "$q" --board virtual eth loopback eth0 1000
contains loopback2-json 0 '"status":"pass","result":{"port_a":"eth4","port_b":"eth5","mbps":10000,"throughput_mbit":' \
  "$q" --board virtual --output-format=json eth loopback2 eth4 eth5 10000
check x552-speed 1 'EthernetDAPI::Extrenal_loopback -> EthernetDDAPI::SendIoctl: "Setup speed fail" -> EthernetDAPI::Setup_speed: "Wait for link up timeout - Not support"' \
  "$q" --board virtual eth loopback eth1 10000
check no-port 1 'EthernetDAPI::ReadMacAddress -> EthernetDDAPI::SendIoctl: "Get vender ID fail" -> EthernetDDAPI::get_device_ID: "Open ethernet node failed - /sys/class/net/eth9;id/device/vendor"' \
  "$q" --board virtual eth mac 'eth9;id'
check usage 2 'quarn: usage: quarn eth loopback2 IF_A IF_B [MBPS]' "$q" --board virtual eth loopback2 eth4
echo "$pass passed, $fail failed"
[ "$fail" = 0 ]
