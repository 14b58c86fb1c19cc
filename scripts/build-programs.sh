#!/usr/bin/env bash
# Builds the daemon and the copy program alone, optimised. Prints what failed, or nothing.
#
#   build-programs.sh [FOLDER [CMAKE OPTION...]]      the folder is build/programs unless another one is named
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1-build/programs}
[ $# -eq 0 ] || shift
if ! output=$(cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release "$@" 2>&1 &&
    cmake --build "$build" --parallel "$(nproc)" --target skarn confirming_rsync 2>&1); then
    printf '%s\n' "$output" >&2
    exit 1
fi
