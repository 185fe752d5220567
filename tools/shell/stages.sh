# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# A cache outside of the tree for what takes long to make and seldom changes, such
# as an ARM64 root file system. A stage is a directory, named by its purpose and a
# hash of its inputs; it is made under a temporary name and moved, so that it is
# complete or missing. To be sourced after common.sh.
#
# The cache may be deleted at any time; a stage that was not used for a month is
# deleted when another of its name is made.

cache=${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/morrow

# key_of: the hash of what stands on standard input, short enough for a name.
key_of() {
    sha256sum | cut -c 1-16
}

# stage NAME KEY COMMAND...: runs `COMMAND... DIRECTORY`, which fills an empty
# directory, unless there is a stage with this key; sets `staged` to its path. Two
# scripts that need the same stage make it once. Ends the script if the command
# fails.
stage() {
    local name=$1 key=$2 lock temporary
    shift 2
    staged=$cache/$name-$key
    if [ -d "$staged" ]; then
        touch "$staged" # it is in use
        return
    fi

    mkdir -p "$cache" || fail "cannot make $cache: set XDG_CACHE_HOME to another directory"
    exec {lock}>"$cache/$name.lock"
    flock "$lock"
    if [ ! -d "$staged" ]; then
        # Left by an interrupted script.
        rm -rf "$cache/.$name".??????
        temporary=$(mktemp -d "$cache/.$name.XXXXXX")
        chmod 755 "$temporary"
        if ! ("$@" "$temporary"); then
            rm -rf "$temporary"
            fail "cannot make the stage $name: see above"
        fi
        touch "$temporary" # its content may be older
        mv -T "$temporary" "$staged"
        find "$cache" -mindepth 1 -maxdepth 1 -name "$name-*" -mtime +30 \
            -exec rm -rf {} +
    fi
    exec {lock}>&-
}
