#!/usr/bin/env bash
# Measures how long skarn takes to drain a full share, against bare rsync processes that move the same files.
# Installs what is missing and builds first; bench/drain.py tells how it is measured.
#
#   bench-drain.sh [--files N] [--size BYTES] [--rounds N] [--limit RATIO]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh demo
printf 'Building skarn and its copy program in build/programs ...\n'
scripts/build-programs.sh
export PYTHONPATH=$PWD/tests PYTHONDONTWRITEBYTECODE=1
exec tests/support/sandbox /usr/bin/python3 bench/drain.py --skarn "$PWD/build/programs/skarn" \
    --copy-program "$PWD/build/programs/confirming_rsync/confirming_rsync" "$@"
