#!/usr/bin/env bash
# Tests skarn-relay with message brokers: a real RabbitMQ, which is restarted, killed, filled, and given wrong passwords and
# certificates, and the Kafka cluster that librdkafka mimics. Installs what is missing (an Erlang among it) and builds
# first; takes some five minutes on two cores.
#
#   test-brokers.sh [PYTEST OPTION...]
#
# The last line counts: "N passed, N failed, N skipped".
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh brokers
build=build/programs
printf 'Building skarn-relay in %s ...\n' "$build"
if ! output=$(cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSKARN_RELAY=ON 2>&1 &&
    cmake --build "$build" --parallel "$(nproc)" --target skarn_relay 2>&1); then
    printf '%s\n' "$output" >&2
    exit 1
fi
results=$PWD/build/brokers
rm -rf "$results"
mkdir -p "$results"
export PYTHONPATH=$PWD/tests PYTHONDONTWRITEBYTECODE=1 LC_ALL=C.UTF-8 \
    SKARN_RELAY_BINARY=$PWD/$build/relay/skarn-relay SKARN_RELAY_CLIENT=$PWD/clients/python

# Side by side: most of it is waiting.
files=(tests/brokers/test_*.py)
processes=()
for file in "${files[@]}"; do
    name=$(basename "$file" .py)
    tests/support/sandbox --writable "$results" /usr/bin/python3 -m pytest -q -p no:cacheprovider --durations=5 \
        --junitxml="$results/$name.xml" "$@" "$file" </dev/null >"$results/$name.log" 2>&1 &
    processes+=($!)
done
# Each file's outcome, as ctest would write it down; the cases' own are counted with it.
{
    printf '<testsuite>\n'
    for at in "${!files[@]}"; do
        name=$(basename "${files[at]}" .py)
        status=0
        wait "${processes[at]}" || status=$?
        case $status in
            0) printf '<testcase name="%s" status="run"/>\n' "$name" ;;
            77) printf '<testcase name="%s" status="notrun"><skipped message="SKIP_RETURN_CODE"/></testcase>\n' "$name" ;;
            *) printf '<testcase name="%s" status="fail"/>\n' "$name" ;;
        esac
    done
    printf '</testsuite>\n'
} >"$results/ctest.xml"
for file in "${files[@]}"; do
    printf '\n== %s\n' "$file"
    cat "$results/$(basename "$file" .py).log"
done
printf '\nMessage brokers; all of it is in %s:\n' "$results"
/usr/bin/python3 scripts/count_tests.py "$results"
