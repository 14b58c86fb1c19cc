#!/usr/bin/env bash
# Fuzzes: builds the fuzzers and runs each for some seconds, one after the other, from its seeds in fuzz/corpus.
#
#   fuzz.sh [--record] [SECONDS] [FUZZER...]      by default 7 seconds and every fuzzer in fuzz/
#
# Inputs that reach new code are kept in build/fuzz/corpus and used again by the next run. An input that breaks a claim
# or makes a sanitizer complain is kept in build/fuzz/findings and its path printed; the same fuzzer, given that path,
# runs it again. --record writes what was run into docs/reliability/fuzzing.tsv, a line for each fuzzer.
#
# The last line counts the fuzzers: "N passed, N failed, N skipped".
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    sed -n '4s/^# *//p' "$0" >&2
    exit 2
}

record=
if [ "${1-}" = --record ]; then
    record=docs/reliability/fuzzing.tsv
    shift
fi
seconds=7
if [[ ${1-} =~ ^[1-9][0-9]*$ ]]; then
    seconds=$1
    shift
fi

scripts/install-packages.sh fuzz
cmake --preset fuzz
cmake --build --preset fuzz --parallel "$(nproc)"

build=build/fuzz
mapfile -t known <"$build/fuzz/names"
fuzzers=("$@")
[ $# -gt 0 ] || fuzzers=("${known[@]}")
for fuzzer in "${fuzzers[@]}"; do
    if [[ " ${known[*]} " != *" $fuzzer "* ]]; then
        printf 'There is no fuzzer "%s". These are there: %s\n' "$fuzzer" "${known[*]}" >&2
        usage
    fi
done

# What is fuzzed: the commit, marked if the tree differs from it. The record itself does not count.
revision=$(git rev-parse --short HEAD)
git diff --quiet HEAD -- . ':(exclude)docs' || revision+=-changed

# number_of LOG NAME: one of the numbers that a fuzzer prints at its end; 0 if it did not come that far.
number_of() {
    local found
    found=$(sed -n "s/^stat::$2: *//p" "$1" | tail -n 1)
    printf '%s' "${found:-0}"
}

# keep FUZZER EXECUTIONS SECONDS FINDINGS: puts the fuzzer's line into the committed record.
keep() {
    local header=$'fuzzer\texecutions\tseconds\tfindings\trevision' fresh
    mkdir -p "${record%/*}"
    fresh=$(mktemp)
    {
        printf '%s\n' "$header"
        {
            if [ -f "$record" ]; then
                awk -F '\t' -v fuzzer="$1" 'NR > 1 && $1 != fuzzer' "$record"
            fi
            printf '%s\t%s\t%s\t%s\t%s\n' "$1" "$2" "$3" "$4" "$revision"
        } | LC_ALL=C sort
    } >"$fresh"
    cat "$fresh" >"$record"
    rm -f "$fresh"
}

passed=0 failed=0
mkdir -p "$build/logs"
for fuzzer in "${fuzzers[@]}"; do
    own=$build/corpus/$fuzzer
    findings=$build/findings/$fuzzer
    log=$build/logs/$fuzzer
    mkdir -p "$own" "$findings"
    options=(-max_total_time="$seconds" -print_final_stats=1 -timeout=10 -rss_limit_mb=2048
        -entropic_scale_per_exec_time=1 -artifact_prefix="$findings/")
    dictionary=fuzz/dictionaries/$fuzzer.dict
    [ ! -f "$dictionary" ] || options+=(-dict="$dictionary")
    begin=$SECONDS status=0
    "$build/fuzz/fuzz_$fuzzer" "${options[@]}" "$own" "fuzz/corpus/$fuzzer" >"$log" 2>&1 || status=$?
    executions=$(number_of "$log" number_of_executed_units)
    took=$((SECONDS - begin))
    if [ "$status" -eq 0 ] && [ "$executions" -gt 0 ]; then
        passed=$((passed + 1)) found=0
        printf '%-16s %9d executions in %d s\n' "$fuzzer" "$executions" "$took"
    else
        failed=$((failed + 1)) found=1
        printf '%-16s failed after %d executions, status %d; the end of %s:\n' "$fuzzer" "$executions" "$status" "$log"
        grep -E -A 20 '^Not true|^==[0-9]+== ?ERROR:|runtime error:' "$log" | head -n 40 || tail -n 20 "$log"
        grep -oE "$findings/[a-z]+-[0-9a-f]+" "$log" | sort -u | sed 's/^/The input is kept: /' || true
    fi
    [ -z "$record" ] || keep "$fuzzer" "$executions" "$took" "$found"
done

printf '\nFuzzers:\n%d passed, %d failed, 0 skipped\n' "$passed" "$failed"
[ "$failed" -eq 0 ]
