#!/usr/bin/env bash
# quarn pci retrain/EEPROM, quarn ntb and quarn nvsram end to end on the virtual board.
set -u
q=$1
. "$(dirname "$0")/../lib/check.sh"
v=("$q" --board virtual)

check retrain 0 'retrain test passed: 20 retrains of 02:01.0' "${v[@]}" pci retrain-test 02:01.0 20
check retrain-down 1 'PCIDAPI::testRetrain -> PCIDDAPI::testRetrain: "link is down"' "${v[@]}" pci retrain-test 02:04.0
check retrain-usage 2 'quarn: usage: quarn pci retrain-test PORT [COUNT]' "${v[@]}" pci retrain-test 02:01.0 0
contains retrain-list-json 0 '{"port":"0000:02:04.0","link_up":false,"downstream":"-"}' "${v[@]}" -o json pci retrain-list
check eeproms 0 'eeprom0 (attached to PCIE switch 0000:01:00.0)' "${v[@]}" pci eeproms
check eeprom-read 0 "$(printf '0000: 0054005a\n0004: 00ca0002')" "${v[@]}" pci eeprom-read eeprom0 0 8
contains eeprom-read-json 0 '"dwords":["0054005a"]' "${v[@]}" -o json pci eeprom-read eeprom0 0
check eeprom-range 1 'PCIDAPI::Failt to read EEPROM -> PCIDDAPI::ReadAttachedFlash: "out of range"' \
  "${v[@]}" pci eeprom-read eeprom0 16384
check eeprom-missing 1 'PCIDAPI::eeprom test fail -> PCIDDAPI::getEeprom: "Device is not found"' \
  "${v[@]}" pci eeprom-test eeprom1
check eeprom-test 0 'eeprom test passed on eeprom0 (image restored)' "${v[@]}" pci eeprom-test eeprom0
check eeprom-version 0 'EEPROM Image version: 01.02' "${v[@]}" pci eeprom-version eeprom0
contains eeprom-save-json 0 '"bytes":92' "${v[@]}" -o json pci eeprom-save eeprom0 /tmp/eeprom0.bin
check eeprom-program-missing 1 'PCIDAPI::programEeprom: "open file fail"' "${v[@]}" pci eeprom-program eeprom0 /tmp/none
check eeprom-write-hex 2 'quarn: quarn pci eeprom-write: HEX must be whole dwords of 8 hexadecimal digits' \
  "${v[@]}" pci eeprom-write eeprom0 0 12345

check ntb-list 0 "$(printf 'NTB0 0000:07:00.0 10b5:87b0\nNTB1 0000:00:03.0 8086:6f0d')" "${v[@]}" ntb list
contains ntb-server 0 'server: 2 rounds exchanged' "${v[@]}" ntb server 2
contains ntb-client-json 0 '"role":"client","rounds":1' "${v[@]}" -o json ntb client 1
contains ntb-perf-json 0 '"buffer_bytes":4096,"rounds":100,"passed":true' "${v[@]}" -o json ntb perf 4096 100
check ntb-stress-nowindow 1 'NTBDAPI::send -> NTBDDAPI::stress -> NTBDDAPI::setForIoTransfer -> NTBDDAPI::getWindowInfo: "can'"'"'t find ntbInfo file"' \
  "${v[@]}" ntb stress 5

check nvsram-list 0 '0 00:04.00 base 0xfb100000 size 131072 bytes, 64-bit elements' "${v[@]}" nvsram list
check nvsram-store 0 'STORE: SRAM copied to the non-volatile array' "${v[@]}" nvsram store
check nvsram-nonvolatile 0 'nvsram nonvolatile test passed on 0x0-0x3ff (contents restored)' \
  "${v[@]}" nvsram test nonvolatile 0 0x3ff 16
check nvsram-width 1 'NVSRAMDAPI::NVRAMTest: "Illegal element size - Unknown element size"' \
  "${v[@]}" nvsram test nonvolatile 0 0x3ff 12
contains nvsram-range-json 1 '"error":"NVSRAMDAPI::dataLineTest: \"out of range - Out of NVSRAM range\""' \
  "${v[@]}" -o json nvsram test dataline 0 0x20000
check nvsram-usage 2 'quarn: usage: quarn nvsram test dataline|addressline|nonvolatile [START END [8|16|32|64]]' \
  "${v[@]}" nvsram test bogus

echo "$pass passed, $fail failed"
[ "$fail" = 0 ]
