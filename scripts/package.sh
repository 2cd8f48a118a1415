#!/usr/bin/env bash
# Builds the Debian packages (library, development files, tool) into build-deb/ and checks
# them: each package holds what it must in its Debian place, and lintian finds no error.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
dir=build-deb
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DQUARN_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)" --target quarn quarn_cli
rm -f "$dir"/*.deb
(cd "$dir" && cpack -G DEB >/dev/null)
arch=$(dpkg --print-architecture)
multi=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
ver=$(sed -n 's/^project(quarn VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
failed=0
check() {  # package, then paths that must be in it
  local pkg=$1; shift
  local deb="$dir/${pkg}_${ver}_${arch}.deb"
  if [ ! -f "$deb" ]; then echo "FAIL package: $deb not built"; failed=1; return; fi
  local list; list=$(dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|')
  for path in "$@"; do
    if printf '%s\n' "$list" | grep -qx "$path"; then echo "PASS package: $pkg has $path"
    else echo "FAIL package: $pkg lacks $path"; failed=1; fi
  done
}
check libquarn-2.0-0 "/usr/lib/$multi/libquarn-2.0.so.0.0.0" "/usr/lib/$multi/libquarn-2.0.so.0" \
  /usr/share/doc/libquarn-2.0-0/copyright /usr/share/doc/libquarn-2.0-0/changelog.gz
check libquarn-dev "/usr/lib/$multi/libquarn-2.0.so" /usr/include/quarn/api/ErrorText.h \
  /usr/include/quarn/dapi/rtc/RTCDAPI.h "/usr/lib/$multi/pkgconfig/quarn-2.0.pc" \
  "/usr/lib/$multi/cmake/quarn/quarnConfig.cmake" "/usr/lib/$multi/cmake/quarn/quarnTargets.cmake" \
  /usr/share/doc/libquarn-dev/copyright
check quarn /usr/bin/quarn /usr/share/man/man1/quarn.1.gz /usr/share/bash-completion/completions/quarn \
  /usr/share/doc/quarn/copyright
# The library package is named after its soname.
x=$(mktemp -d)
dpkg-deb -x "$dir/libquarn-2.0-0_${ver}_${arch}.deb" "$x"
soname=$(objdump -p "$x/usr/lib/$multi/libquarn-2.0.so.0.0.0" | awk '$1=="SONAME"{print $2}')
if [ "$soname" = libquarn-2.0.so.0 ]; then
  echo "PASS package: soname libquarn-2.0.so.0"
else echo "FAIL package: soname"; failed=1; fi
# The packaged tool runs with the packaged library (no run path: it lives in the system's).
dpkg-deb -x "$dir/quarn_${ver}_${arch}.deb" "$x"
if LD_LIBRARY_PATH="$x/usr/lib/$multi" "$x/usr/bin/quarn" --board virtual rtc show >/dev/null; then
  echo "PASS package: the packaged tool runs"
else echo "FAIL package: the packaged tool does not run"; failed=1; fi
if readelf -d "$x/usr/bin/quarn" | grep -qE 'RPATH|RUNPATH'; then echo "FAIL package: the tool has a run path"; failed=1; fi
rm -rf "$x"
# lintian: no errors (warnings are printed, not fatal). Run as root it must be told so.
if lintian --allow-root --no-tag-display-limit "$dir"/*.deb >"$dir/lintian.log" 2>&1; then :; fi
if grep -q '^E:' "$dir/lintian.log"; then
  echo "FAIL package: lintian errors"; grep '^E:' "$dir/lintian.log"; failed=1
else
  echo "PASS package: lintian, no errors ($(grep -c '^W:' "$dir/lintian.log" || true) warnings)"
fi
[ "$failed" -eq 0 ] && echo "package: $(ls "$dir"/*.deb | xargs -n1 basename | tr '\n' ' ')"
exit "$failed"
