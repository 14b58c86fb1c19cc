#!/usr/bin/env bash
# Looks for races with helgrind: runs the system and end-to-end tests with the daemon, and nothing else, under valgrind.
# Installs what is missing and builds first, in build/helgrind.
#
#   helgrind.sh [CTEST-OPTION...]      for example: helgrind.sh -R '^system_rotation$'
#
# A case fails when helgrind reports anything that tests/support/helgrind.supp does not explain. The last line counts:
# "N passed, N failed, N skipped".
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/helgrind
results=$build/results

# Left out: these look at the daemon's own descriptors, memory or signals, and valgrind takes and has its own of each.
# The other tests of the same files run.
left_out=(
    test_a_line_of_ten_megabytes_of_words_takes_a_name_for_each_piece
    test_a_line_of_ten_megabytes_takes_no_memory
    test_a_million_short_names_take_little_memory
    test_lines_without_a_name_take_no_memory_however_many
    test_no_pipe_for_any_process
    test_no_pipe_for_some_processes
    test_nothing_piles_up
    test_signals_keep_the_action_and_mask_they_had
    test_the_daemon_keeps_its_ends_of_the_reports_out_of_the_way
    test_the_detached_daemon
    test_the_listing_s_surroundings
    test_the_target_is_made_and_its_owner_set_in_each_cycle
)

scripts/install-packages.sh races
cmake --preset release -B "$build" -DSKARN_BENCH=OFF
cmake --build "$build" --parallel "$(nproc)" --target skarn confirming_rsync scripted_copy

rm -rf "$results"
mkdir -p "$results"
# The reports go where the tests look for those of the sanitizers. What the daemon starts is not watched.
printf -v wrapper '%q ' valgrind --tool=helgrind --quiet --trace-children=no \
    --log-file=/var/lib/skarn-sanitizer/helgrind.%p --suppressions="$PWD/tests/support/helgrind.supp"
printf -v others ' and not %s' "${left_out[@]}"
export SKARN_WRAPPER=$wrapper
export PYTEST_ADDOPTS="-k '${others# and }'"
# The outcome is read from the results, as in scripts/test.sh.
ctest --test-dir "$build" --parallel 2 --no-tests=error --output-on-failure -R '^(system|end_to_end)_' "$@" \
    --output-junit "$PWD/$results/ctest.xml" || true

printf '\nResults under helgrind, in %s; %d tests left out:\n' "$results" "${#left_out[@]}"
printf '  %s\n' "${left_out[@]}"
/usr/bin/python3 scripts/count_tests.py "$results"
