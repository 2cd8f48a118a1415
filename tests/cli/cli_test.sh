#!/usr/bin/env bash
# The quarn tool end to end on the virtual board: output, JSON, exit status.
set -u
q=$1
. "$(dirname "$0")/../lib/check.sh"

check error-detail 0 'RTCDDAPI::setRTCTimerRate: "Bad parameter 1 - rate isn'"'"'t support"' \
  "$q" error 0xCA080E05 "rate isn't support"
check error-function-only 0 'RTCDAPI::rtcAccuracyTest' "$q" error CA041400
check error-bad-module 0 'Fail to parse error code!!' "$q" error 0x19080000
check error-ioctl-table 0 'Fail to parse error code!!' "$q" error 0xC0000220
check error-layer-zero 0 'RTCFail to parse error code!!' "$q" error 0xCA000000
contains error-json 0 '"function_text":"setDate","number":2,"common":false,"error_text":"value out of range"' \
  "$q" --output-format=json error 0xCA040C02
check error-not-a-code 2 "quarn: error: 'zz' is not a 32-bit code" "$q" error zz

check rtc-set 0 'clock set to 2024-02-29 THU 23:59:58' "$q" --board virtual rtc set 2024-02-29 23:59:58
contains rtc-show-text 0 '  ' "$q" --board virtual rtc show
contains rtc-show-json 0 '"status":"pass","result":{"date_time":"' "$q" --board virtual --output-format=json rtc show
check rtc-bad-date 1 "$(printf 'RTCDAPI::setDate: "value out of range - Date: 29\tDate is out of range!\n"')" \
  "$q" --board virtual rtc set-date 2023-02-29 WED
check rtc-bad-weekday 1 "$(printf 'RTCDAPI::setDate: "value out of range - Day: mon\tDay is out of range!\n"')" \
  "$q" --board virtual rtc set-date 2024-01-01 mon
check rtc-accuracy 0 'RTC accuracy test passed' "$q" --board virtual rtc accuracy-test
contains rtc-wdt-json 1 '"status":"fail","error":"RTCDAPI::rtcWDTTest -> RTCDDAPI::rtcWDTTest: \"function is not implement\"","result":{"test":"rtc watchdog","passed":false}' \
  "$q" --board=virtual -o json rtc wdt-test
check rtc-usage 2 'quarn: usage: quarn rtc set-time HH:MM:SS' "$q" --board virtual rtc set-time 25
contains unknown-kind 2 "unknown kind 'frobnicate'" "$q" frobnicate
contains unknown-board 2 "unknown board 'mars'" "$q" --board mars rtc show
contains unknown-format 2 "unknown output format 'xml'" "$q" --output-format=xml error 0
contains help 0 'rtc      show | set-date | set-time | set | accuracy-test | wdt-test' "$q" --help
contains rtc-help 0 'quarn rtc accuracy-test' "$q" rtc --help
check memory-testable 0 'range1: 0x0000000200000000-0x000000207fffffff  (124928 MiB)' "$q" --board virtual memory testable
check memory-pattern 0 'memory pattern test passed on 0x0000000300000000-0x00000003000fffff' \
  "$q" --board virtual memory test pattern 0x300000000 0x300100000 32 0x5a5a5a5a
check memory-hole 0 '0x0000000090000000: 0xffffffff' "$q" --board virtual memory read 0x90000000
contains memory-bad-width 2 'usage: quarn memory test KIND' "$q" --board virtual memory test marchc 0x300000000 0x300001000 12
contains memory-clip 0 '"clipped_to_bytes":268435456' "$q" --board virtual -o json memory test fill testable
check memory-value-too-wide 2 'quarn: memory write: value does not fit the width' "$q" --board virtual memory write 0x300000000 0x100 8
check cpu-mce 0 'No MCE error message.' "$q" --board virtual cpu mce
check stability 0 'PASSED' "$q" --board virtual stability --power 16 --instances 2 --quiet
contains memory-dimms 0 'dimm2    0  1 0-1    32768 MB   2400 MT/s   DDR4 SDRAM  RDIMM   Samsung   M393A2K40BB2-CTD      3A1B0002' \
  "$q" --board virtual memory dimms
contains memory-ranks 0 'spd-dimm3: 0x0000001c00000000-0x0000001fffffffff' "$q" --board virtual memory ranks
contains memory-layout 0 'spd-dimm0:0x0000002000000000,0x000000207fffffff' "$q" --board virtual memory layout
contains sata-ports 0 '3   SATA0-Port2   linked   6 Gb/s' "$q" --board virtual sata ports
contains sata-smart 0 'reallocated-sector-count' "$q" --board virtual sata smart 1
contains sata-read-json 0 '"status":"pass"' "$q" --board virtual -o json sata read-test 1
contains list-commands 0 'memory test' "$q" --list-commands
# Completion offers the commands of a kind, taken from the tool itself.
out=$(bash -c ". '$(dirname "$0")/../../contrib/quarn.bash-completion'; COMP_WORDS=('$q' --board virtual rtc s); COMP_CWORD=4; _quarn; echo \"\${COMPREPLY[*]}\"")
if [ "$out" = "show set-date set-time set" ]; then pass=$((pass + 1)); else fail=$((fail + 1)); echo "FAIL completion: $out"; fi
# The manual page names every command, escapes what troff would take as markup, and
# formats without a warning where groff is installed.
page=$("$q" --man)
missing=$("$q" --list-commands | while read -r kind name; do
  entry="\\fBquarn ${kind//-/\\-}${name:+ ${name//-/\\-}}\\fR"
  grep -qF -- "$entry" <<<"$page" || echo "$kind $name"
done)
unescaped=$(grep -v '^\.' <<<"$page" | grep -E '(^|[^\\])-')
if [ -z "$missing$unescaped" ]; then pass=$((pass + 1)); else
  fail=$((fail + 1)); echo "FAIL man-page: missing: $missing unescaped: $unescaped"; fi
if command -v groff >/dev/null; then
  warnings=$(groff -man -Tutf8 -ww -z <<<"$page" 2>&1)
  if [ -z "$warnings" ]; then pass=$((pass + 1)); else fail=$((fail + 1)); echo "FAIL man-page-groff: $warnings"; fi
fi
# On this machine: a documented chain or a date, never a crash.
out=$("$q" --board host rtc show 2>&1); rc=$?
if [ $rc -le 1 ] && [[ $rc == 0 || "$out" == RTCDAPI::showDateTime* ]]; then pass=$((pass + 1)); else
  fail=$((fail + 1)); echo "FAIL host-rtc-show: rc $rc: $out"; fi

echo "$pass passed, $fail failed"
[ "$fail" = 0 ]
