# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# What the scripts share: the tree, messages, packages, build directories. To be
# sourced.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then
    bold=$'\e[1m' red=$'\e[31m' plain=$'\e[0m'
else
    bold='' red='' plain=''
fi

# Prints the next step.
say() {
    printf '%s==> %s%s\n' "$bold" "$*" "$plain"
}

# Ends the script with one line: why, and what to do.
fail() {
    printf '%s%s: %s%s\n' "$red" "${0##*/}" "$*" "$plain" >&2
    exit 1
}

# only_help ARGUMENT...: the arguments of a script that has none but --help.
only_help() {
    case $* in
        '') ;;
        -h | --help)
            usage
            exit 0
            ;;
        *)
            usage >&2
            exit 2
            ;;
    esac
}

# packages_of GROUP...: the names that packages.txt lists under these groups.
packages_of() {
    local group
    for group in "$@"; do
        awk -v group="[$group]" '
            /^#/ || /^$/ { next }
            /^\[/ { in_group = ($0 == group); next }
            in_group { print $1 }
        ' "$top/tools/packages.txt"
    done
}

is_installed() {
    [ "$(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# as_root COMMAND...: runs it as root, by sudo where that is needed.
as_root() {
    if [ "$(id -u)" = 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# install_missing GROUP...: installs what is listed and not there.
install_missing() {
    local package missing=()
    command -v dpkg-query >/dev/null ||
        fail "this is not a Debian system: install the packages of tools/packages.txt by hand, then build with meson"
    while read -r package; do
        is_installed "$package" || missing+=("$package")
    done < <(packages_of "$@")
    [ ${#missing[@]} -eq 0 ] && return

    say "Installing ${missing[*]}"
    if [ "$(id -u)" != 0 ] && ! command -v sudo >/dev/null; then
        fail "packages are missing and there is no sudo: as root, run apt-get install ${missing[*]}"
    fi
    as_root apt-get update -qq ||
        fail "apt-get update failed: check the network and /etc/apt/sources.list"
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
        --no-install-recommends "${missing[@]}" >/dev/null ||
        fail "apt-get could not install ${missing[*]}: see above"
}

# make_build_directory: makes build/, below which scripts write; ends the script
# where that is not possible.
make_build_directory() {
    if ! mkdir -p "$top/build" 2>/dev/null || [ ! -w "$top/build" ]; then
        fail "cannot write in $top/build, where everything is built: run this in a copy of the tree that you may write to"
    fi
}

# configure DIRECTORY [--cross-file FILE] OPTION...: sets up a build directory, or
# updates an existing one. It is deleted first if its setup was interrupted, which
# Meson does not repair, or if it is older than its cross file.
configure() {
    local directory=$1 complete=$1/setup-complete cross=()
    shift
    if [ "${1:-}" = --cross-file ]; then
        cross=("$1" "$2")
        [ "$complete" -nt "$2" ] || rm -f "$complete"
        shift 2
    fi
    if [ -e "$complete" ]; then
        meson configure "$directory" "$@"
    else
        rm -rf "$directory"
        meson setup "$directory" "$top" "${cross[@]}" "$@" &&
            touch "$complete"
    fi
}

# use_wrapper PREFIX: lets builds find the sdbusplus and the generator that are
# installed there, by the search paths of a build environment alone.
use_wrapper() {
    [ -x "$1/bin/sdbus++" ] ||
        fail "--wrapper: there is no bin/sdbus++ below \"$1\": install sdbusplus and its generator there"
    export PATH=$1/bin:$PATH
    PKG_CONFIG_PATH=$(find "$1" -type d -name pkgconfig -printf %p:)
    export PKG_CONFIG_PATH
    LD_LIBRARY_PATH=$(pkg-config --variable=libdir sdbusplus)
    export LD_LIBRARY_PATH
}

# logged LOG COMMAND...: runs a step of a build and appends its output to the log;
# if it fails, the end of the log is shown and the script ends.
logged() {
    local log=$1
    shift
    "$@" >>"$log" 2>&1 || {
        tail -n 40 "$log" >&2
        fail "the build failed: see the end of ${log#"$top/"} above"
    }
}

# shown LOG COMMAND...: the same, but on a terminal the user sees the output, such
# as ninja's progress.
shown() {
    if [ ! -t 1 ]; then
        logged "$@"
    else
        shift
        "$@" || fail "the build failed: see above"
    fi
}
