#!/usr/bin/env bash
# Injects faults into whole installations at work, and proves that no file is lost and none is left unannounced.
# Installs what is missing, builds, and runs each fault for itself and then all mixed, each run in a sandbox of its own.
#
#   faults.sh [--seed N] [--fault NAME]... [--rounds N] [--quick] [--out DIR]
#   faults.sh --list
#
#   --seed N      decides the files and the faults; a fresh one is taken, and printed, if none is given
#   --fault NAME  only this one; "mixed" and "mixed-relay" are many of them mixed; may be given several times
#   --rounds N    how many faults each run injects; each kind has its own number otherwise
#   --quick       a few faults of each kind
#   --out DIR     where results.jsonl goes, a line for each run (build/fault-runs if none is given)
#   --list        names the faults
#
# The daemon's log of each run is left in build/fault-runs. The last line counts: "N passed, N failed, N skipped". The
# status is 0 only if the promise held in every run. scripts/faults_table.py makes the table of docs/reliability.md.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    sed -n '2,/^set /{s/^# \{0,1\}//p}' "$0" >&2
    exit 2
}

seed='' rounds='' out=build/fault-runs list=no quick=no faults=()
while [ $# -gt 0 ]; do
    case $1 in
        --list) list=yes ;;
        --quick) quick=yes ;;
        --seed | --fault | --rounds | --out)
            [ $# -ge 2 ] || usage
            case $1 in
                --seed) seed=$2 ;;
                --fault) faults+=("$2") ;;
                --rounds) rounds=$2 ;;
                --out) out=$2 ;;
            esac
            shift
            ;;
        *) usage ;;
    esac
    shift
done
[[ $seed$rounds =~ ^[0-9]*$ ]] || usage

export PYTHONPATH=$PWD/tests:$PWD/tests/relay PYTHONDONTWRITEBYTECODE=1 SKARN_RELAY_CLIENT=$PWD/clients/python
run=(/usr/bin/python3 tests/faults/run.py)
scripts/install-packages.sh relay
if [ "$list" = yes ]; then
    exec "${run[@]}" --list
fi

printf 'Building skarn, its copy program and the relay in build/programs ...\n'
scripts/build-programs.sh build/programs -DSKARN_RELAY=ON
cmake --build build/programs --target skarn_relay_for_tests >/dev/null
export SKARN_BINARY=$PWD/build/programs/skarn
export CONFIRMING_RSYNC_BINARY=$PWD/build/programs/confirming_rsync/confirming_rsync
export SKARN_RELAY_FOR_TESTS_BINARY=$PWD/build/programs/relay/skarn_relay_for_tests

[ -n "$seed" ] || seed=$((SRANDOM % 1000000))
[ ${#faults[@]} -gt 0 ] || mapfile -t faults < <("${run[@]}" --names)
[ "$quick" = no ] || [ -n "$rounds" ] || rounds=5
options=(--seed "$seed")
[ -z "$rounds" ] || options+=(--rounds "$rounds")

logs=build/fault-runs
mkdir -p "$logs" "$out"
results=$out/results.jsonl
: >"$results"
output=$(mktemp)
trap 'rm -f "$output"' EXIT
passed=0 failed=0 skipped=0
for fault in "${faults[@]}"; do
    status=0
    tests/support/sandbox --writable "$logs" "${run[@]}" --fault "$fault" "${options[@]}" --log "$PWD/$logs/$fault-$seed.log" \
        </dev/null 2>&1 | tee "$output" || status=$?
    grep '^{' "$output" >>"$results" || true
    case $status in
        0) passed=$((passed + 1)) ;;
        77) skipped=$((skipped + 1)) ;;
        *) failed=$((failed + 1)) ;;
    esac
done
printf '\nThe seed was %s; the results are in %s.\n' "$seed" "$results"
printf '%d passed, %d failed, %d skipped\n' "$passed" "$failed" "$skipped"
[ "$failed" -eq 0 ] && [ "$skipped" -eq 0 ]
