# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Bare Debian roots in which packages are built and tested: made by mmdebstrap, kept
# as archives in the user's cache, unpacked for one command at a time. Users with
# subordinate ids (/etc/subuid) need not be root. To be sourced after common.sh.

debian_release=bookworm
debian_cache=${XDG_CACHE_HOME:-$HOME/.cache}/morrow

# debian_root NAME KEY MMDEBSTRAP_ARGUMENT...: makes the root unless the cache
# has one of this name and key that is less than a week old. Sets `root` to its
# archive. The key has everything that the root depends on; the cache keeps one root
# of each name.
debian_root() {
    local name=$1 key
    key=$(sha256sum <<<"$debian_release $2")
    shift 2
    root=$debian_cache/$name-${key:0:12}.tar
    mkdir -p "$debian_cache"
    [ -z "$(find "$root" -mtime -7 2>/dev/null)" ] || return 0

    rm -f "$debian_cache/$name"-*.tar
    say "Making the Debian root $name (kept in ${root/#"$HOME"/\~})"
    mmdebstrap --quiet --mode=unshare --format=tar \
        --aptopt='APT::Install-Recommends "false"' "$@" \
        "$debian_release" >"$root.new" || {
        rm "$root.new"
        fail "mmdebstrap could not make $name: see above; it needs the network and, unless run by root, subordinate ids for $(id -un) in /etc/subuid and /etc/subgid"
    }
    mv "$root.new" "$root"
}

# in_fresh_root NETWORK INPUT OUTPUT COMMAND...: runs the command in a copy of
# `root`, in /build, with the files of the directory INPUT. What it leaves in
# /build/out arrives in the directory OUTPUT. NETWORK: online or offline.
in_fresh_root() {
    local network=$1 input=$2 output=$3
    shift 3
    tar --create --directory "$input" --owner=0 --group=0 . |
        in_fresh_root_of_streams "$network" "$@" 3<&0 |
        tar --extract --directory "$output" --no-same-owner
}

# in_fresh_root_of_streams NETWORK COMMAND...: as above; input on descriptor 3,
# output on standard output, messages on standard error.
in_fresh_root_of_streams() {
    mmdebstrap --unshare-helper \
        bash -c "$(cat "${BASH_SOURCE[0]%/*}/in_fresh_root")" in_fresh_root "$@" \
        <"$root" 4>&1 >&2
}
