#!/usr/bin/env bash
# Does on a bare Debian 12 what the README says: a clean clone of what is committed, scripts/demo.sh, scripts/test.sh. The
# machine is a folder (build/bare-tree) that debootstrap has just made, entered as the root of namespaces of its own; so
# what somebody once installed on this one is not there.
#
#   test-readme.sh
#
# The last line counts: "N passed, N failed, N skipped".
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh bare-tree

place=$PWD/build/bare-tree
tree=$place/base
# A blank in the way to it, since there may be one.
clone='/home/some one/skarn'
rm -rf "$place"
printf 'Making a bare Debian machine in %s ...\n' "$tree"
scripts/make-tree.sh "$tree"
git clone --quiet --no-hardlinks . "$tree$clone"

# on_the_machine COMMAND...: runs it in the clone, as root, with a login's environment.
on_the_machine() {
    # shellcheck disable=SC2016 # expanded by the shell that gets it
    unshare --mount --pid --ipc --uts --fork --kill-child -- /bin/bash -euc '
        tree=$1 clone=$2
        shift 2
        mount --make-rprivate /
        mount --bind "$tree" "$tree"
        mount -t proc proc "$tree/proc"
        mount --rbind /sys "$tree/sys"
        mount --rbind /dev "$tree/dev"
        cd "$tree"
        pivot_root . mnt
        umount --lazy /mnt
        cd "$clone"
        exec env -i HOME=/root PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin "$@"
    ' bash "$tree" "$clone" "$@"
}

printf '\n== scripts/demo.sh\n'
passed=0 failed=0 skipped=0
if on_the_machine scripts/demo.sh; then
    passed=1
else
    failed=1
    printf 'Failed: scripts/demo.sh\n'
fi

printf '\n== scripts/test.sh\n'
began=$SECONDS status=0
on_the_machine scripts/test.sh | tee "$place/output" || status=$?
if [[ $(tail -n 1 "$place/output") =~ ^([0-9]+)\ passed,\ ([0-9]+)\ failed,\ ([0-9]+)\ skipped$ ]]; then
    passed=$((passed + BASH_REMATCH[1]))
    failed=$((failed + BASH_REMATCH[2]))
    skipped=$((skipped + BASH_REMATCH[3]))
    [ "$status" -eq 0 ] || [ "${BASH_REMATCH[2]}" -gt 0 ] || failed=$((failed + 1))
else
    failed=$((failed + 1))
fi
printf '\nscripts/test.sh took %d seconds, packages and building included.\n' "$((SECONDS - began))"
# Gigabytes, and made anew each time.
cp -r "$tree$clone/build/release/results" "$place/results" 2>/dev/null || true
rm -rf "$tree"
printf 'The README on a bare machine; results in %s:\n' "$place/results"
printf '%d passed, %d failed, %d skipped\n' "$passed" "$failed" "$skipped"
[ "$failed" -eq 0 ]
