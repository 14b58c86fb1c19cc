#!/usr/bin/env bash
# Compares the copy program of this tree with that of an earlier commit: drains in memory by the daemon with each, in
# turns. Prints medians and the median of the rounds' ratios. Installs what is missing, and builds both.
#
#   bench-compare.sh COMMIT [ROUNDS]
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
    sed -n '2,/^set /s/^# \{0,1\}//p' "$0" >&2
    exit 2
fi
scripts/install-packages.sh bench
build=build/bench
results=$build/results
scripts/build-programs.sh "$build" -DSKARN_BENCH=ON
mkdir -p "$results"

earlier=$(mktemp -d)
trap 'git worktree remove --force "$earlier/tree"; rm -rf "$earlier"' EXIT
git worktree add --quiet --detach "$earlier/tree" "$1"
"$earlier/tree/scripts/build-programs.sh" build/bench
before=$PWD/$results/copy_program_before
cp "$earlier/tree/build/bench/confirming_rsync/confirming_rsync" "$before"

export PYTHONPATH=$PWD/tests:$PWD/bench PYTHONDONTWRITEBYTECODE=1 SKARN_BINARY=$PWD/$build/skarn
tests/support/sandbox --writable "$results" /usr/bin/python3 bench/drain/compare.py \
    "$PWD/$build/confirming_rsync/confirming_rsync" "$before" "${2-15}"
