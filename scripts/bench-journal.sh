#!/usr/bin/env bash
# Measures what the copy program's journal costs: drains a full share with it and without it, in turn.
# Installs what is missing and builds first; bench/journal_cost.py tells how it is measured.
#
#   bench-journal.sh [--files N] [--size BYTES] [--rounds N]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh demo
printf 'Building the programs in build/programs and build/programs-without-journal ...\n'
scripts/build-programs.sh
scripts/build-programs.sh build/programs-without-journal -DCONFIRMING_RSYNC_JOURNAL=
export PYTHONPATH=$PWD/tests:$PWD/bench PYTHONDONTWRITEBYTECODE=1
exec tests/support/sandbox /usr/bin/python3 bench/journal_cost.py --skarn "$PWD/build/programs/skarn" \
    --with-journal "$PWD/build/programs/confirming_rsync/confirming_rsync" \
    --without-journal "$PWD/build/programs-without-journal/confirming_rsync/confirming_rsync" "$@"
