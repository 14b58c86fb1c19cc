#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test, but for those with message brokers (scripts/test-brokers.sh).
#
#   test.sh [PRESET]      PRESET: release (the default), debug, clang, asan-ubsan, tsan, coverage
#
# The last line counts: "N passed, N failed, N skipped". The status is 0 only if everything built and no test failed.
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${1-release}
build=build/$preset
results=$build/results

purposes=(tests)
case $preset in
    clang) purposes+=(checks) ;;
    asan-ubsan | tsan) purposes+=(sanitizers) ;;
esac
# It builds the benchmarks and runs their quick form.
[ "$preset" != release ] || purposes+=(bench)
scripts/install-packages.sh "${purposes[@]}"
cmake --preset "$preset"
cmake --build --preset "$preset" --parallel "$(nproc)"

rm -rf "$results"
mkdir -p "$results"
# Most tests wait more than they work; less so where each step of a program is watched.
case $preset in
    release | debug | clang) side_by_side=$(($(nproc) * 3)) ;;
    *) side_by_side=$(($(nproc) * 2)) ;;
esac
# The outcome is read from the results, which also know the skipped ones.
ctest --test-dir "$build" --label-exclude '^brokers$' --parallel "$side_by_side" --no-tests=error --output-on-failure \
    --output-junit "$PWD/$results/ctest.xml" || true

printf '\nResults of the preset %s, in %s:\n' "$preset" "$results"
/usr/bin/python3 scripts/count_tests.py "$results"
