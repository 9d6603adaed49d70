#!/bin/sh
# Builds the fuzz targets with clang and runs each for N seconds (default 60),
# starting from the checked-in seeds. New inputs go to a scratch corpus in the
# build directory; a failing input is left there as crash-*.
set -eu
secs=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KEL_FUZZ_BUILD:-$root/build-fuzz}
cmake -S "$root/fuzz" -B "$build" -DCMAKE_CXX_COMPILER=${CXX_FUZZ:-clang++} >/dev/null
cmake --build "$build" -j 2
status=0
for seeds in "$root"/fuzz/corpus/*/; do
    name=$(basename "$seeds")
    work="$build/corpus/$name"
    mkdir -p "$work"
    echo "== $name: $secs s"
    if ! (cd "$build" && "./$name" -max_total_time="$secs" -print_final_stats=1 "$work" "$seeds" \
            2>"$build/$name.log"); then
        status=1
        echo "   FAILED, see $build/$name.log"
    fi
    grep -E "^stat::number_of_executed_units|^#[0-9]+ +DONE" "$build/$name.log" || true
done
exit $status
