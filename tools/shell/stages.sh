# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# What takes long to make and seldom changes, such as another machine's root
# file system, is kept outside of the tree, so that every working copy and
# every clean build has it. A stage is a directory, named by what it is and by
# a hash of what it is made from; it is made under a temporary name and moved,
# so that a stage is whole or is not there. To be sourced after common.sh.
#
# Everything below the cache's directory may be deleted at any time; what nobody
# has used for a month is, when another of its name is made.

cache=${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/morrow

# key_of: the hash of what stands on standard input, short enough for a name.
key_of() {
    sha256sum | cut -c 1-16
}

# stage NAME KEY COMMAND...: runs `COMMAND... DIRECTORY`, which fills an empty
# directory, unless that was done before with this key; sets `staged` to where
# it is. Two scripts that need the same stage make it once. Ends the script if
# the command fails, and leaves nothing of it.
stage() {
    local name=$1 key=$2 lock temporary
    shift 2
    staged=$cache/$name-$key
    if [ -d "$staged" ]; then
        touch "$staged" # it is in use
        return
    fi

    mkdir -p "$cache" || fail "cannot make $cache: set XDG_CACHE_HOME to where there is room"
    exec {lock}>"$cache/$name.lock"
    flock "$lock"
    if [ ! -d "$staged" ]; then
        # What an interrupted script left; nobody else is at it now.
        rm -rf "$cache/.$name".??????
        temporary=$(mktemp -d "$cache/.$name.XXXXXX")
        chmod 755 "$temporary"
        if ! ("$@" "$temporary"); then
            rm -rf "$temporary"
            fail "the stage $name could not be made: see above"
        fi
        touch "$temporary" # what it holds may be older
        mv -T "$temporary" "$staged"
        find "$cache" -mindepth 1 -maxdepth 1 -name "$name-*" -mtime +30 \
            -exec rm -rf {} +
    fi
    exec {lock}>&-
}
