#!/bin/bash
# Installs the build into a temporary folder with DESTDIR and builds a small
# ndbm program against that tree only, once through pkg-config and once as a
# CMake project with find_package(varlo); both must run, and so must an
# installed tool. Arguments: build folder, install prefix, consumer sources.
set -euo pipefail
build=$1 prefix=$2 src=$3
tmp=$(mktemp -d /tmp/varlo-install-XXXXXX)
trap "rm -rf $tmp" EXIT
root=$tmp/root
DESTDIR=$root cmake --install "$build" >/dev/null
libdir=$(dirname "$(find "$root$prefix" -name libvarlo.so)")

export PKG_CONFIG_LIBDIR=$libdir/pkgconfig PKG_CONFIG_SYSROOT_DIR=$root
"${CC:-cc}" -std=c99 -Wall -Werror -o "$tmp/by_pkgconfig" "$src/consumer.c" $(pkg-config --cflags --libs varlo)
LD_LIBRARY_PATH=$libdir "$tmp/by_pkgconfig" "$tmp/a"

cmake -S "$src" -B "$tmp/cmake" -DCMAKE_PREFIX_PATH="$root$prefix" >/dev/null
grep -q "^varlo_DIR:PATH=$root$prefix/" "$tmp/cmake/CMakeCache.txt"
cmake --build "$tmp/cmake" >/dev/null
"$tmp/cmake/consumer" "$tmp/b"
"$root$prefix/bin/varlo_check" "$tmp/b.db"
