#!/usr/bin/env bash
# Installs kel from a build tree into a scratch prefix, then builds and runs
# the consumer against it twice: with CMake's package config and with
# pkg-config.
#   check.sh [BUILD_DIR [TOOLCHAIN_FILE]]
# With a toolchain file (the ARM cross build), the consumer is built with it
# and run under qemu-arm, and the pkg-config build uses the cross compiler.
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$src/build}
toolchain=${2:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(ls -d "$prefix"/lib*/pkgconfig | head -n 1)")

cxx=c++
run=()
cmake_args=(-DCMAKE_PREFIX_PATH="$prefix")
if [ -n "$toolchain" ]; then
    cmake_args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_FIND_ROOT_PATH="$prefix")
    cxx=arm-linux-gnueabihf-g++
    run=("$(command -v qemu-arm || command -v qemu-arm-static)" -L /usr/arm-linux-gnueabihf)
fi

cmake -S "$src/tests/consumer" -B "$work/cmake" "${cmake_args[@]}" >/dev/null
cmake --build "$work/cmake" >/dev/null
LD_LIBRARY_PATH="$libdir" "${run[@]}" "$work/cmake/consumer"

PKG_CONFIG_PATH="$libdir/pkgconfig" PKG_CONFIG_SYSROOT_DIR= \
    "$cxx" -std=c++17 "$src/tests/consumer/main.cpp" -o "$work/consumer-pc" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs kel)
LD_LIBRARY_PATH="$libdir" "${run[@]}" "$work/consumer-pc"
echo "consumer: the CMake package and the pkg-config builds run${toolchain:+ (cross)}"
