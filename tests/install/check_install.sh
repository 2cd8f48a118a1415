#!/usr/bin/env bash
# Installs the built tree into a scratch prefix and builds a consumer against it, once
# through the CMake package and once through pkg-config.
set -euo pipefail
build=$1
src=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
lib=$(find "$work/prefix" -name 'libquarn-2.0.so.0' | head -n1)
[ -n "$lib" ] || { echo "installed library missing"; exit 1; }
readelf -d "$lib" | grep -q 'SONAME.*\[libquarn-2.0.so.0\]' || { echo "wrong soname"; exit 1; }
libdir=$(dirname "$lib")
# The tool comes with its manual page and its shell completion.
[ -s "$work/prefix/share/man/man1/quarn.1" ] || { echo "manual page missing"; exit 1; }
[ -s "$work/prefix/share/bash-completion/completions/quarn" ] || { echo "completion missing"; exit 1; }

cmake -S "$src/tests/install/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/consumer/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
pkg-config --exists quarn-2.0 || { echo "pkg-config does not find quarn-2.0"; exit 1; }
# shellcheck disable=SC2046
g++ -std=c++17 "$src/tests/install/consumer/main.cpp" -o "$work/pc-consumer" \
  $(pkg-config --cflags --libs quarn-2.0) -Wl,-rpath,"$libdir"
"$work/pc-consumer"
echo "install check passed"
