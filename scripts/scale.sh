#!/usr/bin/env bash
# Measures what much at a time costs: listings of up to a million entries, and a share of 100,000 real files. Installs
# what is missing and builds first. Takes about two minutes and two gigabytes of memory.
#
#   scale.sh [--entries N...] [--files N...] [--record]
#
# --record writes the numbers into docs/reliability/scale.md. The status is 0 only if all files were moved, and time and
# memory stayed within their bounds.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh tests
build=build/scale
if ! output=$(cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSKARN_TESTS=ON 2>&1 &&
    cmake --build "$build" --parallel "$(nproc)" --target skarn confirming_rsync scripted_copy 2>&1); then
    printf '%s\n' "$output" >&2
    exit 1
fi
export PYTHONPATH=$PWD/tests PYTHONDONTWRITEBYTECODE=1 SKARN_BINARY=$PWD/$build/skarn \
    CONFIRMING_RSYNC_BINARY=$PWD/$build/confirming_rsync/confirming_rsync \
    SCRIPTED_COPY_BINARY=$PWD/$build/tests/support/scripted_copy
results=$build/results
mkdir -p "$results"
rm -f "$results/scale.md"
status=0
tests/support/sandbox --writable "$results" /usr/bin/python3 tests/scale/run.py --output "$PWD/$results/scale.md" "$@" ||
    status=$?
[ ! -e "$results/scale.md" ] || cp "$results/scale.md" docs/reliability/scale.md
exit "$status"
