#!/usr/bin/env bash
# Installs kel from a build tree into a scratch prefix outside the loader's
# paths, then, as a user would:
# - builds the README's usage example with CMake's package config and with
#   pkg-config, under strict warnings, and runs both without LD_LIBRARY_PATH;
# - compiles every installed header under the same warnings;
# - checks that every function declared (not defined) in an installed
#   header is exported by libkel.so or libkellog.so (exports.py);
# - checks that <syslog.h>, included before or after kel's headers, cannot
#   turn a kel log level into a syslog priority unnoticed.
#   check.sh [BUILD_DIR [TOOLCHAIN_FILE]]
# With a toolchain file (the ARM cross build), everything is built with it
# and run under qemu-arm.
set -euo pipefail
unset LD_LIBRARY_PATH
src=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$src/build}
toolchain=${2:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(ls -d "$prefix"/lib*/pkgconfig | head -n 1)")
inc="$prefix/include/kel"
strict=(-std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror)

# The example exactly as the README shows it: the first C++ block under "## Usage".
awk '/^## / { usage = ($0 == "## Usage") } usage && /^```cpp/ { on = 1; next }
     on && /^```/ { exit } on { print }' "$src/README.md" >"$work/app.cpp"
[ -s "$work/app.cpp" ] || { echo "consumer: no usage example in README.md"; exit 1; }

cxx=c++
run=()
cmake_args=(-DCMAKE_PREFIX_PATH="$prefix" -DKEL_CONSUMER_SOURCE="$work/app.cpp")
if [ -n "$toolchain" ]; then
    cmake_args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_FIND_ROOT_PATH="$prefix")
    cxx=arm-linux-gnueabihf-g++
    run=("$(command -v qemu-arm || command -v qemu-arm-static)" -L /usr/arm-linux-gnueabihf)
fi

cmake -S "$src/tests/consumer" -B "$work/cmake" "${cmake_args[@]}" >/dev/null
cmake --build "$work/cmake" >/dev/null
"${run[@]}" "$work/cmake/consumer"

# pkg-config gives no run path: the README tells users to add one.
"$cxx" "${strict[@]}" "$work/app.cpp" -o "$work/consumer-pc" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" PKG_CONFIG_SYSROOT_DIR= pkg-config --cflags --libs kel) \
    -Wl,-rpath,"$libdir"
"${run[@]}" "$work/consumer-pc"

# One version everywhere: kel_version.h and kel_version() of the installed
# library agree, and pkg-config, the CMake package and the SONAME say the same.
cat >"$work/version.cpp" <<'EOF'
#include <stdio.h>
#include <string.h>

#include "kel_version.h"
#define STR(x) #x
#define XSTR(x) STR(x)
int main() {
    const char* parts = XSTR(KEL_VERSION_MAJOR) "." XSTR(KEL_VERSION_MINOR) "." XSTR(KEL_VERSION_PATCH);
    printf("%s %d\n", kel_version(), KEL_VERSION_MAJOR);
    return strcmp(kel_version(), KEL_VERSION_STRING) != 0 || strcmp(parts, KEL_VERSION_STRING) != 0;
}
EOF
"$cxx" "${strict[@]}" "$work/version.cpp" -o "$work/version" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" PKG_CONFIG_SYSROOT_DIR= pkg-config --cflags --libs kel) \
    -Wl,-rpath,"$libdir"
out=$("${run[@]}" "$work/version") || { echo "consumer: kel_version() and kel_version.h disagree: $out"; exit 1; }
read -r version major <<<"$out"
pc_version=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --modversion kel)
[ "$pc_version" = "$version" ] || { echo "consumer: pkg-config says $pc_version, the library $version"; exit 1; }
grep -q "PACKAGE_VERSION \"$version\"" "$libdir/cmake/kel/kelConfigVersion.cmake" ||
    { echo "consumer: the CMake package is not version $version"; exit 1; }
soname=$major
[ "$major" = 0 ] && soname=${version%.*}  # before 1.0: 0.MINOR
[ -e "$libdir/libkel.so.$soname" ] || { echo "consumer: no libkel.so.$soname for version $version"; exit 1; }

for h in "$inc"/*.h; do echo "#include \"$(basename "$h")\""; done >"$work/all.cpp"
"$cxx" "${strict[@]}" -fsyntax-only -I"$inc" "$work/all.cpp"

# Every function that an installed header declares without defining it is
# exported by the installed libraries: names are compared as clang mangles
# them for the host, so cross builds skip this.
if [ -n "$toolchain" ]; then
    exports="exports not checked (cross build)"
elif command -v clang++ >/dev/null 2>&1; then
    clang++ -std=c++17 -fsyntax-only -I"$inc" -Xclang -ast-dump=json "$work/all.cpp" >"$work/ast.json"
    python3 "$src/tests/consumer/exports.py" "$work/ast.json" "$inc" "$libdir"/libkel.so "$libdir"/libkellog.so
    exports="every declared function exported"
else
    exports="exports not checked (no clang++)"
fi

# <syslog.h> defines LOG_INFO and LOG_DEBUG as its own numbers.
syslog_case() {  # $1: includes, in order; $2: body of f(); $3: "ok" or "rejected"
    printf '%s\nvoid f() { %s }\n' "$1" "$2" >"$work/syslog.cpp"
    if "$cxx" "${strict[@]}" -fsyntax-only -I"$inc" "$work/syslog.cpp" 2>"$work/syslog.err"; then
        [ "$3" = ok ] && return 0
        echo "consumer: accepted unnoticed: $1 / $2"
    else
        [ "$3" = rejected ] && grep -q "not a kel log level" "$work/syslog.err" && return 0
        cat "$work/syslog.err"
        echo "consumer: not as expected ($3): $1 / $2"
    fi
    exit 1
}
kel='#include "common_log.h"'
sys='#include <syslog.h>'
for order in "$sys"$'\n'"$kel" "$kel"$'\n'"$sys"; do
    syslog_case "$order" 'KEL_LOG(LOG_INFO, "x");' rejected
    syslog_case "$order" 'KEL_LOG(LOG_DEBUG, "x");' rejected
    syslog_case "$order" 'KEL_LOG(KEL_LOG_INFO, "x"); KEL_LOG(LOG_WARN, "x"); syslog(LOG_INFO, "x");' ok
done
echo "consumer: the README example runs from $prefix without LD_LIBRARY_PATH (CMake package" \
    "and pkg-config${toolchain:+, cross}); version $version everywhere; headers clean under strict" \
    "warnings; $exports; <syslog.h> clash caught"
