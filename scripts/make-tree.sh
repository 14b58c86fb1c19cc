#!/usr/bin/env bash
# Makes a fresh Debian 12 in a folder, with debootstrap: what is essential there (minbase), and nothing else.
#
#   make-tree.sh FOLDER [PACKAGE...]
#
# FOLDER must not exist. Packages, and the way to them, are had as this machine has them. Prints nothing, but the end of
# what was said if it fails; all of it is in FOLDER.log.
set -euo pipefail

if [ $# -eq 0 ] || [ -e "$1" ]; then
    printf 'usage: make-tree.sh FOLDER [PACKAGE...]     (the folder must not exist)\n' >&2
    exit 2
fi
tree=$1
log=$tree.log
shift

# The mirror and the way to it are this machine's own.
# shellcheck disable=SC2016 # apt-get expands these
sources=$(apt-get indextargets --format '$(ORIGIN) $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
    sort -u | awk '$1 == "Debian" { print "deb", $2, $3, $4 }')
mirror=$(awk '$3 == "bookworm" { print $2; exit }' <<<"$sources")
[ -n "$mirror" ] || {
    printf 'apt knows no mirror of Debian 12 (bookworm) here\n' >&2
    exit 1
}
include=
[ $# -eq 0 ] || include=--include=$(IFS=, && printf '%s' "$*")
mkdir -p "$(dirname "$tree")"
# shellcheck disable=SC2086 # without packages there is no such option
debootstrap --variant=minbase $include bookworm "$tree" "$mirror" >"$log" 2>&1 || {
    tail -n 20 "$log" >&2
    printf 'debootstrap failed; all of it is in %s\n' "$log" >&2
    exit 1
}
printf '%s\n' "$sources" >"$tree/etc/apt/sources.list"
apt-config dump Acquire >"$tree/etc/apt/apt.conf.d/00way"
cp --dereference /etc/resolv.conf "$tree/etc/resolv.conf"
