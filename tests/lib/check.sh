# Shared by the command-line test scripts: check (exact output) and contains (a
# fragment), both with the expected exit status; totals in pass and fail.
pass=0 fail=0
check() {  # name, expected exit, expected output (exact), command...
  local name=$1 want_rc=$2 want_out=$3
  shift 3
  local out rc
  out=$("$@" 2>&1)
  rc=$?
  if [ "$rc" = "$want_rc" ] && [ "$out" = "$want_out" ]; then
    pass=$((pass + 1))
  else
    fail=$((fail + 1))
    printf 'FAIL %s: rc %s (want %s)\n  got:  %q\n  want: %q\n' "$name" "$rc" "$want_rc" "$out" "$want_out"
  fi
}
contains() {  # name, expected exit, fragment, command...
  local name=$1 want_rc=$2 frag=$3
  shift 3
  local out rc
  out=$("$@" 2>&1)
  rc=$?
  if [ "$rc" = "$want_rc" ] && [[ "$out" == *"$frag"* ]]; then
    pass=$((pass + 1))
  else
    fail=$((fail + 1))
    printf 'FAIL %s: rc %s (want %s)\n  got: %q\n  missing: %q\n' "$name" "$rc" "$want_rc" "$out" "$frag"
  fi
}
