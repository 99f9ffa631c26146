#!/usr/bin/env bash
# Installs a build into a folder of its own, moves that folder, and builds and runs programs against it: through the
# CMake package and through pkg-config.
#
# usage: install_test.sh BUILD_DIR CMAKE C_COMPILER CXX_COMPILER [FLAG...]     FLAGs compile for the build's flavour
set -euo pipefail
build=$1 cmake=$2 cc=$3 cxx=$4
shift 4
consumer=$(cd "$(dirname "${BASH_SOURCE[0]}")/consumer" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# expect PROGRAM: runs it and compares what it prints; the library must be the installed one.
expect() {
    local printed
    printed=$("$1")
    [ "$printed" = libzenrpx.so.6.1 ] || { echo "$1 printed: $printed"; exit 1; }
    ldd "$1" | grep libzenrpx | grep -qF "$prefix/" || { echo "$1 runs with another library:"; ldd "$1"; exit 1; }
    echo "ok: $1"
}

echo "== install"
"$cmake" --install "$build" --prefix "$work/first"
mv "$work/first" "$work/second place"
ln -s "second place" "$work/second"
prefix=$work/second
find "$work/second place" -name '*gtest*' -o -name '*gmock*' | grep . && { echo "test libraries were installed"; exit 1; }

echo "== find_package"
CFLAGS="$*" CXXFLAGS="$*" "$cmake" -G Ninja -S "$consumer" -B "$work/build" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" || { cat "$work/log"; exit 1; }
"$cmake" --build "$work/build"
expect "$work/build/consumer_c"
expect "$work/build/consumer_cpp"

echo "== pkg-config"
pc=$(find "$work/second place" -name zenrpx.pc)
PKG_CONFIG_PATH=$prefix/${pc#"$work/second place/"}
PKG_CONFIG_PATH=${PKG_CONFIG_PATH%/*}
export PKG_CONFIG_PATH
libdir=$(pkg-config --variable=libdir zenrpx)
read -ra flags <<<"$(pkg-config --cflags --libs zenrpx)"
"$cc" "$@" -std=c99 -pedantic -Wall -Werror "$consumer/consumer.c" -o "$work/pc_c" "${flags[@]}" "-Wl,-rpath,$libdir"
expect "$work/pc_c"
"$cxx" "$@" "$consumer/consumer.cpp" -o "$work/pc_cpp" "${flags[@]}" "-Wl,-rpath,$libdir"
expect "$work/pc_cpp"
