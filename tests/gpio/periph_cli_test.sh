#!/usr/bin/env bash
# quarn gpio, fpga, led and controller end to end on the virtual board: output, JSON,
# exit status.
set -u
q=$1
. "$(dirname "$0")/../lib/check.sh"

contains gpio-list 0 'FAN_FAIL  <----------------------------->  12' "$q" --board virtual gpio list
check gpio-get-json 0 '{"command":"gpio get","board":"virtual","status":"pass","result":{"name":"SLT_AB_PCH","value":1}}' \
  "$q" --board virtual --output-format=json gpio get SLT_AB_PCH
check gpio-set 0 'BIOS_SEL set to 1' "$q" --board virtual gpio set BIOS_SEL 1
check gpio-set-read-only 1 'GPIODAPI::setStatus -> GPIODDAPI::GPIO setBit -> GPIODDAPI::GPIO_PCHDriver setBit: "GPIO Read Only"' \
  "$q" --board virtual gpio set SLT_AB_PCH 0
check gpio-unknown 1 'GPIODAPI::getStatus -> GPIODDAPI::GPIO readBit -> GPIODDAPI::GPIO_PCHDriver isMyGPIO' \
  "$q" --board virtual gpio get NO_PIN
check gpio-set-usage 2 'quarn: usage: quarn gpio set NAME 0|1' "$q" --board virtual gpio set BIOS_SEL on

check fpga-base 0 'fpga0  base 0xfe200000  scratch pad 0xfe208000 (16384 bytes)' "$q" --board virtual fpga base
contains fpga-list-json 0 '{"offset":"0x10","size":1,"access":"write-only"}' \
  "$q" --board virtual --output-format=json fpga list
check fpga-read 0 'register 0x11: 23' "$q" --board virtual fpga read 0x11
check fpga-read-write-only 1 'FPGADAPI::readReg -> FPGADDAPI::read: "register is write-only - register: 0x10"' \
  "$q" --board virtual fpga read 16
check fpga-write-read-only 1 'FPGADAPI::writeReg -> FPGADDAPI::write: "register is read-only - register: 0x11"' \
  "$q" --board virtual fpga write 17 ff
check fpga-unknown 1 'FPGADAPI::readReg -> FPGADDAPI::read: "unknown register"' "$q" --board virtual fpga read 30
check fpga-write 0 'register 0x03 written with 5a' "$q" --board virtual fpga write 3 0x5A
check fpga-write-usage 2 'quarn: fpga write: the value is one byte in hexadecimal (00-ff)' \
  "$q" --board virtual fpga write 3 1ff
check fpga-spad-test-json 0 '{"command":"fpga spad-test","board":"virtual","status":"pass","result":{"test":"fpga scratch pad","device":"fpga0","size":16384,"passed":true}}' \
  "$q" --board virtual --output-format=json fpga spad-test

contains led-list 0 "$(printf 'ctrl_act_led\nctrl_fault_led\neth_')" "$q" --board virtual led list
check led-set 0 'ctrl_fault_led set on' "$q" --board virtual led set ctrl_fault_led on
check led-bad-state 1 'LEDDAPI::setLEDStatus -> CONTROLLERDDAPI::setLEDStatus: "unexpected value - blink"' \
  "$q" --board virtual led set ctrl_act_led blink
check led-no-module 1 'LEDDAPI::getLEDStatus: "No device is found - led1"' "$q" --board virtual led get led1
check controller-slot-json 0 '{"command":"controller slot","board":"virtual","status":"pass","result":{"slot":1}}' \
  "$q" --board virtual --output-format=json controller slot
echo "$pass passed, $fail failed"
[ "$fail" = 0 ]
