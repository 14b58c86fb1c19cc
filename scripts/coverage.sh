#!/usr/bin/env bash
# Measures which lines the tests run: builds with the preset coverage, runs the tests that are built, and prints the
# line and branch coverage of each folder and of each file.
#
#   coverage.sh [CTEST-OPTION...]      for example: coverage.sh -R '^unit$'
#
# A page for each file, with the lines that were not run, is left in build/coverage/report. The status is that of the
# tests. No record is left of the lines of a daemon that a test ends by a signal, nor of those that a copy process runs
# before it becomes the copy program.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/coverage
report=$build/report
folders=(daemon config log transfer utilities shares confirming_rsync)

scripts/install-packages.sh coverage
cmake --preset coverage
cmake --build --preset coverage --parallel "$(nproc)"

# What earlier runs recorded would count too.
find "$build" -name '*.gcda' -delete
status=0
ctest --test-dir "$build" --no-tests=error --output-on-failure "$@" || status=$?

rm -rf "$report"
mkdir -p "$report"
filters=()
for folder in "${folders[@]}"; do
    filters+=(--filter "$folder/")
done
gcovr --root . --exclude-throw-branches "${filters[@]}" --csv "$report/files.csv" \
    --html-details "$report/index.html" "$build"

printf '\nCoverage, in %s/index.html line by line:\n' "$report"
awk -F, '
    function percent(covered, total) { return total ? sprintf("%5.1f%%", 100 * covered / total) : "     -" }
    function row(name, lines, run, branches, taken) {
        printf "%-36s %5d lines %s   %5d branches %s\n", name, lines, percent(run, lines), branches, percent(taken, branches)
    }
    FNR == 1 {
        for (i = 1; i <= NF; i++) column[$i] = i
        next
    }
    {
        split($1, path, "/")
        for (each = 1; each <= 3; each++) {
            name = each == 1 ? $1 : each == 2 ? path[1] "/" : "all"
            if (!(name in lines)) order[each, ++count[each]] = name
            lines[name] += $column["line_total"]; run[name] += $column["line_covered"]
            branches[name] += $column["branch_total"]; taken[name] += $column["branch_covered"]
        }
    }
    END {
        for (each = 1; each <= 3; each++) {
            for (i = 1; i <= count[each]; i++) {
                name = order[each, i]
                row(name, lines[name], run[name], branches[name], taken[name])
            }
            print ""
        }
    }' "$report/files.csv"
exit "$status"
