#!/usr/bin/env bash
# quarn uart and quarn tpm end to end on the virtual board: output, JSON, exit status.
set -u
q=$1
. "$(dirname "$0")/../lib/check.sh"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

check uart-list 0 "$(printf '%s\n' 'NAME    NODE          TYPE      PORT   IRQ  FIFO' \
  'uart0   /dev/ttyS0    16550A    0x3F8  4    16' 'uart1   /dev/ttyS1    16550A    0x2F8  3    16' \
  'uart2   /dev/ttyS2    16550A    0x3E8  4    16' 'uart3   /dev/ttyS3    16550A    0x2E8  3    16')" \
  "$q" --board virtual uart list
contains uart-list-json 0 '{"name":"uart1","path":"/dev/ttyS1","type":"16550A","type_number":4,"port":"0x2F8","irq":3' \
  "$q" --board virtual --output-format=json uart list
check uart-scratch 0 'uart2: scratch pad test passed (0xAA 0x55 0xFF 0x00)' "$q" --board virtual uart scratch-test uart2
check uart-loopback 0 'uart0: internal loopback test passed (300 bytes)' "$q" --board virtual uart loopback-test uart0 300
check uart-loopback-broken 1 'UARTDAPI::doInternalLoopbackTest -> UARTDDAPI::doInternalLoopbackTest: "compare data fail"' \
  "$q" --board virtual --fault uart3-loop uart loopback-test uart3
check uart-loopback-json 1 '{"command":"uart loopback-test","board":"virtual","status":"fail","error":"UARTDAPI::doInternalLoopbackTest -> UARTDDAPI::doInternalLoopbackTest: \"compare data fail\"","result":{"test":"internal loopback","port":"uart3","length":8,"pattern":"counting","bytes_matched":0,"passed":false}}' \
  "$q" --board virtual --fault uart3-loop --output-format=json uart loopback-test uart3 8
check uart-absent 1 'UARTDAPI::testScratchPad -> UARTDDAPI::testScratchPad -> UARTDDAPI::searchUART: "No device is found - uart4"' \
  "$q" --board virtual uart scratch-test uart4
check uart-usage 2 'quarn: usage: quarn uart loopback-test PORT [LENGTH [PATTERN]]' \
  "$q" --board virtual uart loopback-test uart0 8 256

check tpm-selftest 0 "$(printf '%s\n' 'response (10 bytes):' '  80 01 00 00 00 0a 00 00 00 00' \
  'response code 0x00000000 TPM_RC_SUCCESS: success' 'TPM self-test passed')" "$q" --board virtual tpm selftest
contains tpm-caps 0 'TPM_PT_MANUFACTURER           0x00000105  0x49424D00  "IBM."' "$q" --board virtual tpm caps
contains tpm-caps-json 0 '"rc_name":"TPM_RC_SUCCESS","rc_meaning":"success"},"more_data":true,"properties":[{"property":"0x00000105","name":"TPM_PT_MANUFACTURER","value":"0x49424D00","text":"IBM."}]' \
  "$q" --board virtual --output-format=json tpm caps 6 0x105 1
printf '80 01\n00 00 00 0b\n00 00 01 43\n00\n' >"$tmp/selftest.txt"
contains tpm-send 0 'response code 0x00000000 TPM_RC_SUCCESS: success' "$q" --board virtual tpm send "$tmp/selftest.txt"
# A GetCapability of an unknown capability: the TPM's own answer, decoded.
printf '80 01\n00 00 00 16\n00 00 01 7a 00 00 00 77 00 00 00 00 00 00 00 01\n' >"$tmp/badcap.txt"
contains tpm-send-rc 0 'response code 0x000001C4 TPM_RC_VALUE: value is out of range or is not correct for the context (parameter 1)' \
  "$q" --board virtual tpm send "$tmp/badcap.txt"
printf '80 01 \n00 00 00 0b\n00 00 01 43\n00\n' >"$tmp/spaced.txt"
check tpm-send-spacing 1 'TPMDAPI::sendCommandManually -> TPMDDAPI::sendCommandManually: "incorrect command length"' \
  "$q" --board virtual tpm send "$tmp/spaced.txt"
ln -s "$tmp/selftest.txt" "$tmp/link.txt"
check tpm-send-link 1 'TPMDAPI::sendCommandManually -> TPMDDAPI::sendCommandManually: "fail to open file"' \
  "$q" --board virtual tpm send "$tmp/link.txt"
check tpm-show 0 'TPM0' "$q" --board virtual tpm show
echo "$pass passed, $fail failed"
[ "$fail" = 0 ]
