#!/usr/bin/env bash
# Builds the Debian packages skarn, skarn-confirming-rsync and skarn-relay from what git tracks, and has lintian look at them.
#
#   build-packages.sh [--version VERSION]      another version than the changelog's, to try an upgrade with
#
# They are left in build/packages. The status is 0 only if lintian has nothing to say.
set -euo pipefail
cd "$(dirname "$0")/.."

version=
if [ "${1-}" = --version ] && [ $# -eq 2 ]; then
    version=$2
elif [ $# -ne 0 ]; then
    printf 'usage: build-packages.sh [--version VERSION]\n' >&2
    exit 2
fi

scripts/install-packages.sh packages
packages=$PWD/build/packages
source=$packages/source
rm -rf "$source"
mkdir -p "$source"
git ls-files -z | tar --create --null --verbatim-files-from --files-from=- | tar --extract --directory="$source"
mv "$source/packaging/debian" "$source/debian"

cd "$source"
if [ -n "$version" ]; then
    sed -i "1s/([^)]*)/($version)/" debian/changelog
else
    version=$(dpkg-parsechangelog --show-field Version)
fi
rm -f ../skarn*_"$version"_*
log=$packages/build.log
# The build of a package is long and interests nobody unless it fails.
if ! dpkg-buildpackage --build=binary --no-sign >"$log" 2>&1; then
    tail -n 40 "$log" | cut -c 1-500 >&2
    printf 'The packages could not be built; all of it is in %s\n' "$log" >&2
    exit 1
fi
cd "$packages"
rm -rf "$source"
ls ./skarn*_"$version"_*.deb
printf 'lintian:\n'
lintian --allow-root --display-info --pedantic --fail-on error,warning,info,pedantic ./skarn_"$version"_*.changes
printf 'nothing to say\n'
