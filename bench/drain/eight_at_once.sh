#!/usr/bin/env bash
# Pulls a share with eight rsync processes at once: the best that a script of some lines can do with stock rsync.
#
#   eight_at_once.sh URL TARGET PASSWORD_FILE PAUSE [PASSES]
#
# Each pass lists the share, deals the names onto eight lists and copies them all at once. Rests PAUSE seconds after each
# pass; ends after PASSES of them, or never.
set -euo pipefail
url=$1 target=$2 pause=$4 passes=${5:-0}
# Without TCP_NODELAY, the removal of each file waits for the network's delayed acknowledgement.
options=(--password-file="$3" --sockopts=TCP_NODELAY)
lists=$(mktemp -d)
trap 'rm -rf "$lists"' EXIT

for ((pass = 1; ; pass++)); do
    rsync -r --list-only --exclude='*.tmp' "${options[@]}" "$url" | awk '/^-/ { print $5 }' |
        split -n r/8 - "$lists/"
    for list in "$lists"/*; do
        [ ! -s "$list" ] || rsync -tW --remove-source-files --files-from="$list" "${options[@]}" "$url" "$target" &
    done
    wait
    [ "$pass" -ne "$passes" ] || break
    sleep "$pause"
done
