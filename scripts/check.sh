#!/usr/bin/env bash
# Runs the static checks: formatting, clang++'s warnings and clang-tidy, shellcheck, mypy, the manuals, and words that
# must not land.
#
#   check.sh
#
# All of them run, whatever the first ones find. The last line counts: "N passed, N failed, N skipped".
set -euo pipefail
cd "$(dirname "$0")/.."

passed=0 failed=0

# check NAME COMMAND...: runs one check and keeps account of it.
check() {
    local name=$1
    shift
    printf '\n== %s\n' "$name"
    if "$@"; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        printf 'Failed: %s\n' "$name"
    fi
}

# scripts_for INTERPRETERS: the tracked files whose first line calls one of them, one per line.
scripts_for() {
    # shellcheck disable=SC2016 # awk's own variables
    git ls-files -z | xargs -0 awk -v wanted="^#!.*[/ ]($1)\$" \
        'FNR == 1 { if ($0 ~ wanted) print FILENAME; nextfile }'
}

formatting() {
    git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run -Werror
}

# It reads each file as clang++ does, and says what clang++ warns of, so that no build is needed.
tidy() {
    cmake --preset clang >/dev/null || return
    # A file that is part of several programs is read once.
    mkdir -p build/tidy
    /usr/bin/python3 -c 'import json, sys
print(json.dumps(list({each["file"]: each for each in json.load(sys.stdin)}.values())))' \
        <build/clang/compile_commands.json >build/tidy/compile_commands.json
    # Its output is mostly the names of the files and the numbers of what it left out.
    local report status=0
    report=$(run-clang-tidy -quiet -j "$(nproc)" -p build/tidy 2>&1) || status=$?
    if [ "$status" -ne 0 ]; then
        sed -E -e 's/\x1b\[[0-9;]*m//g' -e '/^clang-tidy|^[0-9]+ warnings?|^Suppressed |^Use -/d' <<<"$report"
    fi
    return "$status"
}

shell_scripts() {
    # The completion is read by a shell, not run, and so names none in its first line.
    { scripts_for 'sh|bash'; git ls-files packaging/completion; } | xargs -r shellcheck
}

types() {
    MYPYPATH=tests:bench:packaging/tests:clients/python:tests/relay:scripts/watch_picture:scripts/demo \
        mypy --strict --explicit-package-bases "$@"
}

python_types() {
    local list=() status=0
    mapfile -t list < <(git ls-files '*.py' ':!tests/relay/conftest.py')
    types "${list[@]}" || status=$?
    types tests/relay/conftest.py || status=$? # by its name it is the same module as another one
    return "$status"
}

# The manuals, by mandoc's own rules; that a manual refers to one which this machine lacks is no mistake of it.
manuals() {
    local complaints page
    complaints=$(mandoc -T lint docs/man/* 2>&1 | grep -v -e 'referenced manual not found' -e 'outdated mandoc.db') || true
    for page in skarn.8 skarnctl.8 skarn-relay.8 skarn-relay.toml.5 skarn_orbelin.conf.5 confirming-rsync.8; do
        [ -f "docs/man/$page" ] || complaints+="$page is missing"
    done
    [ -z "$complaints" ] || {
        printf '%s\n' "$complaints"
        return 1
    }
}

# tree_free_of PATTERN [FOLDER...], log_free_of PATTERN: fail and show the lines when a tracked file (of these folders, or
# of all) or a commit message matches. The patterns below are written so that they do not match themselves.
tree_free_of() {
    local status=0
    git grep -nIE "$1" -- "${@:2}" || status=$?
    [ "$status" -eq 1 ]
}

log_free_of() {
    local status=0
    git log --format='%h %s%n%b' | grep -E "$1" || status=$?
    [ "$status" -eq 1 ]
}

# Requirements, paths of one machine: the code says what it does, not where that was told.
words='\b[Ss]pecification\b|\b[Tt]he [s]pec\b|\b[s]pec\.md|\bper [s]pec\b|\b[Pp]art[s]? [0-9]\.[0-9]|/[w]ork/'
# Unfinished work and tests switched off.
markers='[T]ODO|[F]IXME|\b[X]XX\b|not [i]mplemented|[D]ISABLED_|[G]TEST_SKIP|pytest\.([m]ark\.)?skip'

scripts/install-packages.sh checks
check 'formatting' formatting
check 'clang++ and clang-tidy' tidy
check 'shellcheck' shell_scripts
check 'mypy --strict' python_types
check 'manuals' manuals
check 'no word that must not land' tree_free_of "$words"
check 'no such word in the history' log_free_of "$words"
check 'nothing unfinished or switched off' tree_free_of "$markers"
# What is mounted below a folder may be the project itself: tests remove folders by tests/support/folders.py.
check 'no test walks into what is mounted' tree_free_of '[r]mtree' tests bench scripts

printf '\nStatic checks:\n%d passed, %d failed, 0 skipped\n' "$passed" "$failed"
[ "$failed" -eq 0 ]
