#!/bin/sh
# Builds the fuzz targets natively and runs each in turn for SECONDS, from
# its committed inputs (tests/fuzz/corpus/<target>: seeds and every input
# that once failed), at the lowest priority. New inputs found go to the
# build folder, failing ones to BUILD/crashes. The log's debug lines, which
# cost more than most parsing, are built only when the inputs are run once
# more at the end. Prints, last, "fuzz: N targets, E executions, C crashes"
# and fails when C is not 0.
#   run.sh BUILD SECONDS [TARGET...]
set -e
here=$(cd "$(dirname "$0")" && pwd)
build=$1
seconds=$2
shift 2

cmake -S "$here" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE= >/dev/null
cmake --build "$build" -j "${JOBS:-2}" >/dev/null
mkdir -p "$build/crashes"

targets=0
executions=0
crashes=0
for program in "$build"/targets/*; do
    name=$(basename "$program")
    if [ $# -gt 0 ] && ! echo " $* " | grep -q " $name "; then
        continue
    fi
    mkdir -p "$build/corpus/$name"
    log="$build/$name.log"
    status=0
    KORVANE_FUZZ_LOG_LEVEL=3 nice -n 19 "$program" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
        -artifact_prefix="$build/crashes/$name-" "$build/corpus/$name" "$here/corpus/$name" >"$log" 2>&1 || status=$?
    if [ "$status" -eq 0 ]; then
        KORVANE_FUZZ_LOG_LEVEL=1 nice -n 19 "$program" -runs=0 -timeout=10 -artifact_prefix="$build/crashes/$name-" \
            "$build/corpus/$name" "$here/corpus/$name" >>"$log" 2>&1 || status=$?
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    runs=${runs:-$(sed -n 's/^#\([0-9]*\).*/\1/p' "$log" | tail -n 1)}
    targets=$((targets + 1))
    executions=$((executions + ${runs:-0}))
    if [ "$status" -ne 0 ]; then
        crashes=$((crashes + 1))
        grep -m 3 -E "ERROR|runtime error|Test unit written" "$log" || true
    fi
    echo "$name: ${runs:-0} executions$([ "$status" -ne 0 ] && echo ", failed (see $log)")"
done
echo "fuzz: $targets targets, $executions executions, $crashes crashes"
[ "$crashes" -eq 0 ]
