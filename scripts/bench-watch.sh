#!/usr/bin/env bash
# Measures what skarnctl watch costs while skarn moves small files as fast as it can, as per cent of a core.
# Installs what is missing and builds first; bench/watch.py tells how it is measured.
#
#   bench-watch.sh [--detectors N] [--files N] [--size BYTES] [--rounds N] [--limit PERCENT]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh demo control
build=build/programs-control
printf 'Building skarn, its copy program and skarnctl in %s ...\n' "$build"
scripts/build-programs.sh "$build" -DSKARN_CONTROL=ON
if ! output=$(cmake --build "$build" --parallel "$(nproc)" --target skarnctl 2>&1); then
    printf '%s\n' "$output" >&2
    exit 1
fi
export PYTHONPATH=$PWD/tests PYTHONDONTWRITEBYTECODE=1
exec tests/support/sandbox /usr/bin/python3 bench/watch.py --skarn "$PWD/$build/skarn" --skarnctl "$PWD/$build/skarnctl" \
    --copy-program "$PWD/$build/confirming_rsync/confirming_rsync" "$@"
