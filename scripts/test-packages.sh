#!/usr/bin/env bash
# Builds the Debian packages, and tries them on a fresh Debian machine: installs, checks, starts, moves files, watches,
# scrapes, crashes, upgrades and removes them. The machine is a folder (build/package-tree), made with debootstrap and
# booted with systemd-nspawn in namespaces of its own.
#
#   test-packages.sh [PYTEST OPTION...]
#
# The last line counts: "N passed, N failed, N skipped".
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh package-tree
scripts/build-packages.sh

place=$PWD/build/package-tree
base=$place/base
log=$place/packages.log
results=$place/results
rm -rf "$place"
mkdir -p "$results"

# quietly COMMAND...: what it says is long and interests nobody unless it fails.
quietly() {
    "$@" >>"$log" 2>&1 || {
        tail -n 20 "$log" >&2
        printf '%s failed; all of it is in %s\n' "$1" "$log" >&2
        exit 1
    }
}

printf 'Making a fresh Debian machine in %s ...\n' "$base"
scripts/make-tree.sh "$base" systemd systemd-sysv dbus curl

# The same packages under a later version, for the upgrade.
mkdir "$place/packages"
cp build/packages/skarn_*.deb build/packages/skarn-confirming-rsync_*.deb build/packages/skarn-relay_*.deb "$place/packages"
first=("$place"/packages/*.deb)
for package in "${first[@]}"; do
    dpkg-deb --raw-extract "$package" "$place/later"
    sed -i -e '/^Version: /s/$/+later/' -e '/^Recommends: /s/)/+later)/' "$place/later/DEBIAN/control"
    quietly dpkg-deb --root-owner-group --build "$place/later" "${package/_/_later_}"
    rm -rf "$place/later"
done
cp -r "$place/packages" "$base/root/packages"
# What they depend on is fetched now: the machine has no network once it runs.
quietly chroot "$base" apt-get -q update
quietly chroot "$base" apt-get -q -y --no-install-recommends --download-only install \
    "${first[@]/#$place//root}"

status=0
export PACKAGE_TREE=$base PYTHONPATH=$PWD/tests PYTHONDONTWRITEBYTECODE=1
# What passed is shown, too, for what it printed.
/usr/bin/python3 -m pytest -q -rP -p no:cacheprovider --rootdir=packaging/tests \
    --junitxml="$results/ctest.xml" packaging/tests "$@" || status=$?
# Gigabytes, and made anew each time.
rm -rf "$base" "$place/machine" "$place/relay-machine"
printf '\nResults of the packages, in %s:\n' "$results"
/usr/bin/python3 scripts/count_tests.py "$results" || exit
exit "$status"
