#!/usr/bin/env bash
# Soaks the daemon: it serves four simulated detectors for long, busy and idle in turn, with real rsync servers, our
# copy program and a reader of the named pipe, while its memory, descriptors, threads, zombies and files are sampled.
# Installs what is missing, builds first, and runs in a sandbox of its own.
#
#   soak.sh [MINUTES] [--cycles N] [--detectors N] [--seed N] [--summary FILE] [--help]
#
# It runs for MINUTES (default 10) and until N cycles were made (default 0). Left in build/soak-results: samples.csv,
# the picture soak.png, and summary.md, which --summary copies to FILE as well. The last line counts what was judged:
# "N passed, N failed, N skipped". The status is 0 only if all stayed flat and no file was lost.
set -euo pipefail
cd "$(dirname "$0")/.."

results=build/soak-results
summary=
arguments=()
while [ $# -gt 0 ]; do
    case $1 in
        --summary)
            [ $# -gt 1 ] || {
                printf 'soak.sh: --summary needs the name of a file\n' >&2
                exit 2
            }
            summary=$2
            shift
            ;;
        *) arguments+=("$1") ;;
    esac
    shift
done

export PYTHONPATH=$PWD/tests PYTHONDONTWRITEBYTECODE=1
run=(/usr/bin/python3 tests/soak/run.py --skarn "$PWD/build/programs/skarn" --results "$PWD/$results"
    --copy-program "$PWD/build/programs/confirming_rsync/confirming_rsync")

# Questions and mistakes are answered before anything is built.
for argument in "${arguments[@]}"; do
    case $argument in
        -h | --help)
            sed -n '2,/^set /s/^# \{0,1\}//p' "$0"
            exit 0
            ;;
    esac
done
"${run[@]}" --only-check-options "${arguments[@]}"

scripts/install-packages.sh soak
printf 'Building skarn and its copy program in build/programs ...\n'
scripts/build-programs.sh

rm -rf "$results"
mkdir -p "$results"
status=0
tests/support/sandbox --writable "$results" "${run[@]}" "${arguments[@]}" 2>&1 | tee "$results/output" || status=$?
if [ -e "$results/samples.csv" ]; then
    gnuplot -c tests/soak/picture.gnuplot "$results/samples.csv" "$results/soak.png"
    printf 'The picture: %s\n' "$results/soak.png"
    if [ -n "$summary" ]; then
        # shellcheck disable=SC2016 # the backquotes are the page's
        printf '# Soak\n\nMeasured by\n`scripts/soak.sh%s`,\nwhich writes this page; %s\n\n' \
            "${arguments[*]:+ ${arguments[*]}} --summary $summary" \
            'the test `soak_short` repeats half a minute of it.' >"$summary"
        cat "$results/summary.md" >>"$summary"
    fi
fi
# Once more, for whoever reads the last line.
tail -n 1 "$results/output"
exit "$status"
