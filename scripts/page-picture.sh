#!/usr/bin/env bash
# Takes the pictures of the relay's page for docs/relay.md: a relay, its subscribers and a headless Chromium, in a
# sandbox. It takes about two minutes. Installs what is missing and builds first.
#
#   page-picture.sh [FOLDER]     the pictures go to docs/relay unless another folder is named
set -euo pipefail
cd "$(dirname "$0")/.."

folder=${1-docs/relay}
case $folder in
    -*)
        sed -n '2,/^set /s/^# \{0,1\}//p' "$0" | sed '$d'
        exit 0
        ;;
esac

scripts/install-packages.sh tests
printf 'Building the relay in build/programs ...\n'
scripts/build-programs.sh build/programs -DSKARN_RELAY=ON
cmake --build build/programs --target skarn_relay >/dev/null
export PYTHONPATH=$PWD/tests:$PWD/tests/relay PYTHONDONTWRITEBYTECODE=1 SKARN_PAGE=$PWD/relay/page.html \
    SKARN_RELAY_BINARY=$PWD/build/programs/relay/skarn-relay SKARN_RELAY_CLIENT=$PWD/clients/python

mkdir -p build/page-picture "$folder"
tests/support/sandbox --writable build/page-picture /usr/bin/python3 scripts/page_picture/take.py "$PWD/build/page-picture"
mv build/page-picture/page.png build/page-picture/phone.png "$folder"
