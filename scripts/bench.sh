#!/usr/bin/env bash
# Runs the benchmarks: micro (the daemon's own work by the piece), drain (whole shares, beside other ways of pulling
# them), durable (drains onto ext4 and xfs), growth (more files, more detectors), idle (an empty cycle), figures (what
# keeping the figures of each share costs), relay (into its log and out of it). Installs what is missing, builds first,
# and measures in the sandbox. All parts together take some forty minutes on two cores.
#
#   bench.sh [--quick | --add] [PART...]
#
# When all parts were run, their numbers are kept in docs/performance/results.jsonl, and the tables of
# docs/performance.md and its plots are written from them. --add does so with some parts: they take their places in the
# last full run. --quick shows only that all of it works, and keeps nothing.
# The status is 0 unless a part fails; a target that is missed is told, and no failure.
set -euo pipefail
cd "$(dirname "$0")/.."

all=(micro drain durable growth idle figures relay)
quick=() adds=no parts=()
for argument in "$@"; do
    case $argument in
        --quick) quick=(--quick) ;;
        --add) adds=yes ;;
        micro | drain | durable | growth | idle | figures | relay) parts+=("$argument") ;;
        -h | --help)
            sed -n '2,/^set /s/^# \{0,1\}//p' "$0"
            exit 0
            ;;
        *)
            printf 'usage: bench.sh [--quick | --add] [PART...]   (%s)\n' "${all[*]}" >&2
            exit 2
            ;;
    esac
done
[ ${#parts[@]} -gt 0 ] || parts=("${all[@]}")

began=$(date +%s)
scripts/install-packages.sh bench
build=build/bench
results=$build/results
printf 'Building the programs in %s ...\n' "$build"
scripts/build-programs.sh "$build" -DSKARN_BENCH=ON -DSKARN_RELAY=ON
if ! output=$(cmake --build "$build" --parallel "$(nproc)" --target skarn_micro_bench confirming_rsync_without_figures \
    skarn_relay relay_intake_speed 2>&1); then
    printf '%s\n' "$output" >&2
    exit 1
fi
export PYTHONPATH=$PWD/tests:$PWD/bench:$PWD/tests/relay PYTHONDONTWRITEBYTECODE=1 SKARN_BINARY=$PWD/$build/skarn \
    CONFIRMING_RSYNC_BINARY=$PWD/$build/confirming_rsync/confirming_rsync \
    CONFIRMING_RSYNC_WITHOUT_FIGURES=$PWD/$build/bench/confirming_rsync_without_figures \
    SKARN_MICRO_BINARY=$PWD/$build/bench/micro/skarn_micro_bench SKARN_RELAY_CLIENT=$PWD/clients/python \
    SKARN_RELAY_BINARY=$PWD/$build/relay/skarn-relay SKARN_RELAY_SPEED_BINARY=$PWD/$build/bench/relay/relay_intake_speed

rm -rf "$results"
mkdir -p "$results"
failed=() files=()
for part in "${parts[@]}"; do
    printf '\n== %s\n' "$part"
    tests/support/sandbox --writable "$results" /usr/bin/python3 bench/run.py measure "$part" --output "$PWD/$results/$part.json" \
        "${quick[@]}" || failed+=("$part")
    files+=("$results/$part.json")
done
if [ ${#failed[@]} -gt 0 ]; then
    printf 'Failed: %s\n' "${failed[*]}" >&2
    exit 1
fi
how=()
if [ "$(printf '%s\n' "${parts[@]}" | sort -u)" = "$(printf '%s\n' "${all[@]}" | sort)" ]; then
    how=(--began "$began")
elif [ "$adds" = yes ]; then
    how=(--add)
fi
if [ ${#quick[@]} -eq 0 ] && [ ${#how[@]} -gt 0 ]; then
    /usr/bin/python3 bench/run.py record --build "$build" "${how[@]}" "${files[@]}"
    /usr/bin/python3 bench/run.py render
    printf '\nKept in docs/performance/results.jsonl; docs/performance.md tells it.\n'
fi
printf 'It took %d seconds.\n' "$(($(date +%s) - began))"
