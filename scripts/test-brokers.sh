#!/usr/bin/env bash
# Tests skarn-relay with message brokers: a real RabbitMQ, which is restarted, killed, filled, and given wrong passwords and
# certificates, and the Kafka cluster that librdkafka mimics. Installs what is missing (an Erlang among it) and builds
# first, which is little where scripts/test.sh has built the same preset.
#
#   test-brokers.sh [PRESET [CTEST OPTION...]]      PRESET: as for scripts/test.sh; release is the default
#
# The last line counts: "N passed, N failed, N skipped". The status is 0 only if everything built and no test failed.
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${1-release}
build=build/$preset
results=$build/results

purposes=(brokers)
case $preset in
    clang | asan-ubsan | tsan) purposes+=(sanitizers) ;;
esac
scripts/install-packages.sh "${purposes[@]}"
cmake --preset "$preset"
cmake --build --preset "$preset" --parallel "$(nproc)" --target skarn_relay

# What other tests left there stays.
mkdir -p "$results"
rm -f "$results"/brokers_*.xml
ctest --test-dir "$build" --label-regex '^brokers$' --parallel "$(($(nproc) * 3))" --no-tests=error \
    --output-on-failure --output-junit "$PWD/$results/ctest.xml" "${@:2}" || true

printf '\nResults of the message brokers with the preset %s, in %s:\n' "$preset" "$results"
/usr/bin/python3 scripts/count_tests.py "$results"
