# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# An ARM64 Debian, unpacked but not configured, so that no ARM64 program has to run
# here. The cross compiler builds against it, and a virtual board boots from it. To
# be sourced after common.sh and stages.sh; needs the packages of [arm64].

arm64_suite=bookworm

# arm64_sources: this machine's list of sources, with its mirror or proxy; empty when
# it runs another release.
arm64_sources() {
    local file
    for file in /etc/apt/sources.list.d/debian.sources /etc/apt/sources.list; do
        if grep -qs "\b$arm64_suite\b" "$file"; then
            echo "$file"
            return
        fi
    done
}

# What a board does not need. Copyright notices stay with their files.
arm64_left_out() {
    local path
    for path in doc-base info lintian locale man; do
        echo "--dpkgopt=path-exclude=/usr/share/$path/*"
    done
    echo '--dpkgopt=path-exclude=/usr/share/doc/*'
    echo '--dpkgopt=path-include=/usr/share/doc/*/copyright'
}

# arm64_fetch DIRECTORY: fills DIRECTORY/root and DIRECTORY/kernel.
arm64_fetch() {
    local directory=$1 archive=$1/root.tar log=$1/mmdebstrap.log
    local host sources left_out mode=auto
    host=$(dpkg --print-architecture)
    sources=$(arm64_sources)
    [ "$(id -u)" != 0 ] || mode=root
    mapfile -t left_out < <(arm64_left_out)

    if ! mmdebstrap --mode="$mode" --variant=extract \
        --arch="arm64,$host" \
        --include="$(packages_of sysroot | paste -sd,)" \
        --hook-dir=/usr/share/mmdebstrap/hooks/merged-usr \
        --extract-hook="$top/tools/shell/fetch_kernel" \
        "${left_out[@]}" \
        "$arm64_suite" "$archive" ${sources:+"$sources"} >"$log" 2>&1; then
        tail -n 20 "$log" >&2
        return 1
    fi
    mkdir "$directory/root" &&
        tar -C "$directory/root" -xpf "$archive" --no-same-owner \
            --exclude='./dev/*' &&
        rm "$archive" "$log" &&
        mv "$directory/root/kernel" "$directory" &&
        arm64_relative_links "$directory/root"
}

# arm64_relative_links ROOT: makes links between libraries relative; absolute ones
# would lead out of the root.
arm64_relative_links() {
    local link target
    find "$1/usr/lib" -name '*.so' -lname '/*' | while read -r link; do
        target=$(readlink "$link")
        ln -sfnr "$1$target" "$link"
    done
}

# arm64_base: sets `arm64` to a directory that has
#   root/    the unpacked Debian: a sysroot with the packages of [sysroot]
#   kernel/  the packages of its kernel for virtual machines: linux-image and
#            linux-headers for ARM64, linux-headers-*-common, and linux-kbuild
#            for this machine
# which are fetched (about 110 MB) the first time. Do not modify them: copy.
arm64_base() {
    local key
    key=$({
        cat "$top/tools/shell/arm64.sh" "$top/tools/shell/fetch_kernel"
        packages_of sysroot
        arm64_sources | xargs -r cat
    } | key_of)
    [ -d "$cache/arm64-$key" ] || say "Fetching an ARM64 Debian into $cache"
    stage arm64 "$key" arm64_fetch
    # shellcheck disable=SC2034 # for who sources this
    arm64=$staged
}
