#!/usr/bin/env bash
# Pulls a share with eight rsync processes that GNU parallel starts and feeds with names.
#
#   with_parallel.sh URL TARGET PASSWORD_FILE PAUSE [PASSES]
#
# Rests PAUSE seconds after each pass; ends after PASSES of them, or never.
set -euo pipefail
url=$1 target=$2 pause=$4 passes=${5:-0}
options=(--password-file="$3" --sockopts=TCP_NODELAY)

for ((pass = 1; ; pass++)); do
    rsync -r --list-only --exclude='*.tmp' "${options[@]}" "$url" | awk '/^-/ { print $5 }' |
        parallel --will-cite --pipe --round-robin --block 4k -j 8 \
            rsync -tW --remove-source-files --files-from=- "${options[@]}" "$url" "$target"
    [ "$pass" -ne "$passes" ] || break
    sleep "$pause"
done
