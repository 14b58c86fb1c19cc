#!/usr/bin/env bash
# Takes the picture of the live view for the operations guide: real rsync servers, the daemon, a consumer and
# `skarnctl watch` in a terminal, in a sandbox. It takes about a minute. Installs what is missing and builds first.
#
#   watch-picture.sh [FILE]      the picture is docs/operations/watch.svg unless another file is named
set -euo pipefail
cd "$(dirname "$0")/.."

picture=${1-docs/operations/watch.svg}
case $picture in
    -*)
        sed -n '2,/^set /s/^# \{0,1\}//p' "$0" | sed '$d'
        exit 0
        ;;
esac

scripts/install-packages.sh tests
export PYTHONPATH=$PWD/tests:$PWD/scripts/watch_picture PYTHONDONTWRITEBYTECODE=1
printf 'Building skarn, skarnctl and the copy program in build/programs ...\n'
scripts/build-programs.sh build/programs -DSKARN_CONTROL=ON
cmake --build build/programs --target skarnctl >/dev/null

mkdir -p build/watch-picture "$(dirname "$picture")"
tests/support/sandbox --writable build/watch-picture /usr/bin/python3 scripts/watch_picture/take.py \
    --skarn "$PWD/build/programs/skarn" --skarnctl "$PWD/build/programs/skarnctl" \
    --picture "$PWD/build/watch-picture/watch.svg" --copy-program "$PWD/build/programs/confirming_rsync/confirming_rsync"
mv build/watch-picture/watch.svg "$picture"
