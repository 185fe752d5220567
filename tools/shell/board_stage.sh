# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash disable=SC2154 # what common.sh sets
#
# The daemon and the simulated board as they are installed, built from the working
# tree. To be sourced after common.sh.

# stage_board: builds in build/demo and sets `stage` to the directory that it is
# installed in. Standard output is left to a client.
stage_board() {
    local build=$top/build/demo log=$top/build/demo.log
    stage=$build/stage
    say "Building in build/demo" >&2
    : >"$log"
    logged "$log" configure "$build" --prefix=/usr -Dtests=disabled \
        -Dsystemd_unit_dir=/usr/lib/systemd/system
    shown "$log" ninja -C "$build" >&2
    rm -rf "$stage"
    logged "$log" meson install -C "$build" --destdir "$stage" --no-rebuild
}
