#!/usr/bin/env bash
# Installs the Debian packages that a purpose needs and that are missing: the one place that knows them.
#
#   install-packages.sh PURPOSE...      PURPOSE: build, control, relay, demo, tests, brokers, soak, bench, races, coverage,
#                                               packages, package-tree, bare-tree, sanitizers, checks, fuzz
#
# Says what it is going to install before it does. Does nothing, and needs no rights, when all is there.
set -euo pipefail

# The daemon and the copy program themselves need no more than these (ninja is what the presets build with).
build=(cmake g++ ninja-build)
# What skarnctl is built with, beside these.
control=(libcli11-dev libncurses-dev libsystemd-dev nlohmann-json3-dev)
# What skarn-relay is built with.
relay=(libcli11-dev libcpp-httplib-dev librabbitmq-dev librdkafka-dev libre2-dev libsqlite3-dev libsqlitecpp-dev libssl-dev libsystemd-dev libtomlplusplus-dev libxxhash-dev nlohmann-json3-dev pkgconf)
# The sandbox (mount, unshare, ip), the other end of the transfers, and what drives them.
demo=("${build[@]}" iproute2 mount python3 rsync util-linux)
# Of prometheus only promtool is wanted, which checks metrics and alerts; no smaller package has it.
tests=("${demo[@]}" "${control[@]}" "${relay[@]}" bash-completion btrfs-progs chromium chromium-driver curl e2fsprogs git gnuplot-nox libgmock-dev libgtest-dev prometheus python3-jsonschema python3-pil python3-pytest python3-selenium strace systemd tmux xfsprogs xxhash)
# What skarn-relay can deliver to, and receivers of it. The server brings an Erlang with it.
brokers=("${tests[@]}" openssl python3-confluent-kafka python3-pika rabbitmq-server)
soak=("${demo[@]}" gnuplot-nox)
bench=("${demo[@]}" "${relay[@]}" e2fsprogs gnuplot-nox libbenchmark-dev parallel strace xfsprogs)
races=("${tests[@]}" valgrind)
coverage=("${tests[@]}" gcovr)
# What builds Debian packages and looks at them, and what makes a tree to install them into.
packages=("${build[@]}" "${control[@]}" "${relay[@]}" bash-completion debhelper dpkg-dev fakeroot git lintian pkgconf)
package_tree=("${demo[@]}" "${packages[@]}" debootstrap python3-pytest systemd systemd-container)
bare_tree=(debootstrap git util-linux)
# The sanitizers and what drives the fuzzers are the compiler's run-time library, which clang only recommends.
sanitizers=("${build[@]}" clang libclang-rt-dev)
checks=("${tests[@]}" "${sanitizers[@]}" clang-format clang-tidy git libbenchmark-dev mandoc mypy shellcheck)
fuzz=("${sanitizers[@]}" git libtomlplusplus-dev)

usage() {
    printf 'usage: install-packages.sh PURPOSE...   (build, control, relay, demo, tests, brokers, soak, bench, races, coverage, packages, package-tree, bare-tree, sanitizers, checks, fuzz)\n' >&2
    exit 2
}

[ $# -gt 0 ] || usage
wanted=()
for purpose in "$@"; do
    case $purpose in
        build) wanted+=("${build[@]}") ;;
        control) wanted+=("${build[@]}" "${control[@]}") ;;
        relay) wanted+=("${demo[@]}" "${relay[@]}") ;;
        demo) wanted+=("${demo[@]}") ;;
        tests) wanted+=("${tests[@]}") ;;
        brokers) wanted+=("${brokers[@]}") ;;
        soak) wanted+=("${soak[@]}") ;;
        bench) wanted+=("${bench[@]}") ;;
        races) wanted+=("${races[@]}") ;;
        coverage) wanted+=("${coverage[@]}") ;;
        packages) wanted+=("${packages[@]}") ;;
        package-tree) wanted+=("${package_tree[@]}") ;;
        bare-tree) wanted+=("${bare_tree[@]}") ;;
        sanitizers) wanted+=("${sanitizers[@]}") ;;
        checks) wanted+=("${checks[@]}") ;;
        fuzz) wanted+=("${fuzz[@]}") ;;
        *) usage ;;
    esac
done

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    printf 'This is no Debian system: nothing is installed. What is needed, by the names it has there:\n  %s\n' \
        "${wanted[*]}" >&2
    exit 0
fi

missing=()
for package in "${wanted[@]}"; do
    # shellcheck disable=SC2016 # dpkg-query expands this one
    status=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null) || status=
    if [ "$status" != installed ] && [[ " ${missing[*]} " != *" $package "* ]]; then
        missing+=("$package")
    fi
done
[ ${#missing[@]} -gt 0 ] || exit 0

if [ "$(id -u)" -ne 0 ]; then
    printf 'Missing packages. As root, install them with:\n  apt-get install %s\n' "${missing[*]}" >&2
    exit 1
fi
printf 'Installing with apt-get what is missing (this takes a while): %s\n' "${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
for server in prometheus rabbitmq-server; do
    if [[ " ${missing[*]} " == *" $server "* ]] && [ -d /run/systemd/system ]; then
        printf 'Masking %s.service, so that the package does not start a server that nobody asked for.\n' "$server"
        systemctl mask --quiet "$server.service"
    fi
done
# What it has to say is long and interests nobody unless it fails.
output=$(mktemp)
trap 'rm -f "$output"' EXIT
options=(--quiet --option DPkg::Lock::Timeout=300 --option Dpkg::Use-Pty=0)
# Without a network the lists that are there may still do.
apt-get "${options[@]}" update </dev/null >"$output" 2>&1 ||
    printf 'The package lists could not be renewed:\n%s\n' "$(tail -n 5 "$output")" >&2
if ! apt-get "${options[@]}" install --yes --no-install-recommends "${missing[@]}" </dev/null >"$output" 2>&1; then
    cat "$output" >&2
    exit 1
fi
