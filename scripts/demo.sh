#!/usr/bin/env bash
# Shows skarn's main job: simulated detectors write files into shares of real rsync daemons, skarn pulls them and
# announces each one in a named pipe. Installs what is missing, builds, runs in a sandbox and compares at the end.
#
#   demo.sh [--relay] [--detectors N] [--files N] [--size BYTES] [--rate FILES_PER_SECOND] [--help]
#
# With --relay the relay stands in the consumer's place and has two subscribers, one of which dies and comes back.
# The status is 0 only if everything that was produced arrived, was announced once and is gone at the source.
# Nothing is left on the host but what stands in the folder build.
set -euo pipefail
cd "$(dirname "$0")/.."

with_relay=no
for argument in "$@"; do
    [ "$argument" != --relay ] || with_relay=yes
done
if [ "$with_relay" = yes ]; then
    scripts/install-packages.sh relay
else
    scripts/install-packages.sh demo
fi
export PYTHONPATH=$PWD/tests:$PWD/clients/python PYTHONDONTWRITEBYTECODE=1
show=(/usr/bin/python3 scripts/demo/show.py --skarn "$PWD/build/programs/skarn" --log "$PWD/build/demo/skarn.log"
    --copy-program "$PWD/build/programs/confirming_rsync/confirming_rsync"
    --relay-program "$PWD/build/programs/relay/skarn-relay")

# Questions and mistakes are answered before anything is built.
for argument in "$@"; do
    case $argument in
        -h | --help) exec "${show[@]}" --help ;;
    esac
done
"${show[@]}" --only-check-options "$@"

if [ "$with_relay" = yes ]; then
    printf 'Building skarn, its copy program and the relay in build/programs ...\n'
    scripts/build-programs.sh build/programs -DSKARN_RELAY=ON
    cmake --build build/programs --target skarn_relay >/dev/null
else
    printf 'Building skarn and its copy program in build/programs ...\n'
    scripts/build-programs.sh
fi
mkdir -p build/demo
exec tests/support/sandbox --writable build/demo "${show[@]}" "$@"
