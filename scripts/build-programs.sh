#!/usr/bin/env bash
# Builds the daemon and the copy program alone, optimised, in build/programs. Prints what failed, or nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/programs
if ! output=$(cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release 2>&1 &&
    cmake --build "$build" --parallel "$(nproc)" --target skarn confirming_rsync 2>&1); then
    printf '%s\n' "$output" >&2
    exit 1
fi
