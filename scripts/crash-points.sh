#!/usr/bin/env bash
# Ends the copy program at each of its system calls, lets each of them fail, and cuts the power at each: no file may be
# lost, and none left unannounced. The same for the relay: no line may be lost or doubled; of its deaths and failures it
# is a share, another one each day. Installs what is missing and builds first; takes some five minutes on two cores.
#
#   crash-points.sh [copy | listing | cut | relay]...       all if none is named
#   RELAY_POINTS_PART=1/1 crash-points.sh relay             all points of the relay: a quarter of an hour
#
# The last line counts: "N passed, N failed, N skipped". Not under sanitizers: what they add to the calls says nothing of
# the program.
set -euo pipefail
cd "$(dirname "$0")/.."

points=("$@")
[ $# -gt 0 ] || points=(copy listing cut relay)
for each in "${points[@]}"; do
    [ -f "tests/power/test_${each}_points.py" ] || {
        printf 'usage: crash-points.sh [copy | listing | cut | relay]...\n' >&2
        exit 2
    }
done

scripts/install-packages.sh tests
printf 'Building skarn, its copy program and the relay in build/programs ...\n'
scripts/build-programs.sh build/programs -DSKARN_RELAY=ON
cmake --build build/programs --target skarn_relay >/dev/null
export PYTHONPATH=$PWD/tests:$PWD/tests/relay PYTHONDONTWRITEBYTECODE=1 LC_ALL=C.UTF-8 \
    SKARN_BINARY=$PWD/build/programs/skarn SKARN_RELAY_BINARY=$PWD/build/programs/relay/skarn-relay \
    CONFIRMING_RSYNC_BINARY=$PWD/build/programs/confirming_rsync/confirming_rsync SKARN_RELAY_CLIENT=$PWD/clients/python
results=$PWD/build/crash-points
rm -rf "$results"
mkdir -p "$results"

# Side by side: most of it is waiting.
processes=()
for each in "${points[@]}"; do
    tests/support/sandbox --writable "$results" /usr/bin/python3 -m pytest -q -p no:cacheprovider \
        --junitxml="$results/$each.xml" "tests/power/test_${each}_points.py" </dev/null >"$results/$each.log" 2>&1 &
    processes+=($!)
done
passed=0 failed=0 skipped=0
for at in "${!points[@]}"; do
    status=0
    wait "${processes[at]}" || status=$?
    printf '\n== %s\n' "${points[at]}"
    cat "$results/${points[at]}.log"
    if [ "$status" -eq 77 ] || grep -qE '^[0-9]+ skipped|, [0-9]+ skipped' "$results/${points[at]}.log"; then
        skipped=$((skipped + 1))
    elif [ "$status" -eq 0 ]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
    fi
done
printf '\nCrash points; all of it is in %s:\n' "$results"
printf '%d passed, %d failed, %d skipped\n' "$passed" "$failed" "$skipped"
[ "$failed" -eq 0 ]
