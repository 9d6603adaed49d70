#!/usr/bin/env bash
# Installs kel from a build tree into a scratch prefix, then builds and runs
# the consumer against it twice: with CMake's package config and with
# pkg-config.
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$src/build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$src/tests/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/cmake/consumer"
libdir=$(ls -d "$work"/prefix/lib*/pkgconfig | head -n 1)
PKG_CONFIG_PATH="$libdir" c++ -std=c++17 "$src/tests/consumer/main.cpp" -o "$work/consumer-pc" \
  $(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs kel)
LD_LIBRARY_PATH="$(dirname "$libdir")" "$work/consumer-pc"
echo "consumer: cmake package and pkg-config builds run"
