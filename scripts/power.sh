#!/usr/bin/env bash
# Cuts the power of whole installations at work, and proves that no file is lost and none is left unannounced.
# Installs what is missing, builds, and runs life after life, each in a sandbox of its own.
#
#   power.sh [--seed N] [--cuts N] [--rounds N] [--disk NAME] [--life NAME] [--parts N] [--out DIR]
#
#   --seed N      decides the files and the instants; a fresh one is taken, and printed, if none is given
#   --cuts N      how many cuts each life has (12 if none is given)
#   --rounds N    how many lives of each kind there are (4 if none is given: 576 cuts at random instants)
#   --disk NAME   only over this file system: ext4, xfs or btrfs
#   --life NAME   only this one: "stream" (a detector that writes all the time), "drain" (a share full of files),
#                 "points" (a cut at each system call of a copy: once for each file system, whatever --cuts and
#                 --rounds say), "relay" (lines that go through the relay into its log) or "relay-points" (a cut after
#                 each of its system calls, likewise once)
#   --parts N     only with the target and the journals on one file system (1), or on two (2); the relay's log has one
#   --out DIR     where power.jsonl goes, a line for each life (build/power-runs if none is given)
#
# At last it shows that the bed can fail: the copy program is built without its flush, and each file system must then
# report losses; these runs do not go into the results. The last line counts: "N passed, N failed, N skipped". The
# status is 0 only if the promise held in every life. scripts/faults_table.py --power makes the table of
# docs/reliability.md.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    sed -n '2,/^set /{s/^# \{0,1\}//p}' "$0" >&2
    exit 2
}

seed='' cuts=12 rounds=4 out=build/power-runs disks=(ext4 xfs btrfs) lives=(stream drain points relay relay-points) parts=(1 2)
while [ $# -gt 0 ]; do
    [ $# -ge 2 ] || usage
    case $1 in
        --seed) seed=$2 ;;
        --cuts) cuts=$2 ;;
        --rounds) rounds=$2 ;;
        --disk) disks=("$2") ;;
        --life) lives=("$2") ;;
        --parts) parts=("$2") ;;
        --out) out=$2 ;;
        *) usage ;;
    esac
    shift 2
done
[[ $seed$cuts$rounds =~ ^[0-9]*$ ]] || usage

export PYTHONPATH=$PWD/tests:$PWD/tests/relay PYTHONDONTWRITEBYTECODE=1 SKARN_RELAY_CLIENT=$PWD/clients/python
scripts/install-packages.sh tests

printf 'Building skarn, its copy program and the relay in build/programs ...\n'
scripts/build-programs.sh build/programs -DSKARN_RELAY=ON
cmake --build build/programs --target skarn_relay >/dev/null
printf 'Building the copy program without its flush in build/unflushed ...\n'
scripts/build-programs.sh build/unflushed -DCONFIRMING_RSYNC_FLUSH=OFF
export SKARN_BINARY=$PWD/build/programs/skarn SKARN_RELAY_BINARY=$PWD/build/programs/relay/skarn-relay

[ -n "$seed" ] || seed=$((SRANDOM % 1000000))
mkdir -p "$out"
results=$out/power.jsonl
: >"$results"
output=$(mktemp)
trap 'rm -f "$output"' EXIT
passed=0 failed=0 skipped=0

# life BUILD ARGUMENT...: one life, with the copy program of that build. Its output is kept.
life() {
    local program=$PWD/build/$1/confirming_rsync/confirming_rsync
    shift
    CONFIRMING_RSYNC_BINARY=$program tests/support/sandbox /usr/bin/python3 tests/power/run.py "$@" </dev/null 2>&1 |
        tee "$output"
}

# count STATUS: keeps account of a life.
count() {
    case $1 in
        0) passed=$((passed + 1)) ;;
        77) skipped=$((skipped + 1)) ;;
        *) failed=$((failed + 1)) ;;
    esac
}

for ((round = 0; round < rounds; round++)); do
    for disk in "${disks[@]}"; do
        for kind in "${lives[@]}"; do
            for part in "${parts[@]}"; do
                case $kind in
                    *points) [ "$round-$part" = "0-${parts[0]}" ] || continue ;;
                    relay) [ "$part" = "${parts[0]}" ] || continue ;;
                esac
                status=0
                life programs --disk "$disk" --life "$kind" --parts "$part" --seed $((seed + round)) --cuts "$cuts" ||
                    status=$?
                grep '^{' "$output" >>"$results" || true
                count "$status"
            done
        done
    done
done

printf '\nWithout the flush there must be losses:\n'
for disk in "${disks[@]}"; do
    status=0
    life unflushed --disk "$disk" --life stream --seed "$seed" --cuts 3 --patience 5 >/dev/null || status=$?
    if [ "$status" -ne 77 ]; then
        lost=$(sed -n 's/^{.*"lost": \([0-9]*\),.*/\1/p' "$output")
        printf '%s: %s lost\n' "$disk" "${lost:-no answer}"
        status=$((${lost:-0} > 0 ? 0 : 1))
    fi
    count "$status"
done

printf '\nThe seed was %s; the results are in %s.\n' "$seed" "$results"
printf '%d passed, %d failed, %d skipped\n' "$passed" "$failed" "$skipped"
[ "$failed" -eq 0 ] && [ "$skipped" -eq 0 ]
