#!/usr/bin/env bash
# Pulls a share with one plain rsync again and again, as it is written in an afternoon.
#
#   plain_loop.sh URL TARGET PASSWORD_FILE PAUSE [PASSES]
#
# Rests PAUSE seconds after each pass; ends after PASSES of them, or never.
set -euo pipefail
url=$1 target=$2 password=$3 pause=$4 passes=${5:-0}

for ((pass = 1; ; pass++)); do
    rsync -r --remove-source-files --exclude='*.tmp' --password-file="$password" "$url" "$target"
    [ "$pass" -ne "$passes" ] || break
    sleep "$pause"
done
