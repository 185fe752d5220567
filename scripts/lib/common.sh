# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# What the scripts share: where the tree is, how they speak, and how packages
# are installed. To be sourced.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then
    bold=$'\e[1m' red=$'\e[31m' plain=$'\e[0m'
else
    bold='' red='' plain=''
fi

# Says what comes next.
say() {
    printf '%s==> %s%s\n' "$bold" "$*" "$plain"
}

# Ends the script with one line that says why and what to do.
fail() {
    printf '%s%s: %s%s\n' "$red" "${0##*/}" "$*" "$plain" >&2
    exit 1
}

# packages_of GROUP...: the names that packages.txt lists under these groups.
packages_of() {
    local group
    for group in "$@"; do
        awk -v group="[$group]" '
            /^#/ || /^$/ { next }
            /^\[/ { in_group = ($0 == group); next }
            in_group { print $1 }
        ' "$top/scripts/packages.txt"
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
        fail "this is no Debian system: install what scripts/packages.txt lists by hand, then build with meson"
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

# configure DIRECTORY OPTION...: sets a build directory up, or brings one that
# is there up to date.
configure() {
    local directory=$1
    shift
    if [ -e "$directory/build.ninja" ]; then
        meson configure "$directory" "$@"
    else
        meson setup "$directory" "$top" "$@"
    fi
}
