# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Meson's cross file for the ARM64 Debian of arm64.sh. To be sourced after it.

# cross_file [EMULATOR]: prints a cross file. EMULATOR, a Meson array, is what
# ARM64 programs run with here; also for tests that start this machine's
# programs, which start the ARM64 ones.
# shellcheck disable=SC2120 # scripts/cross gives one
cross_file() {
    local emulator=${1:-}
    # shellcheck disable=SC2154 # arm64_base sets it
    cat <<END
[constants]
root = '$arm64/root'

[binaries]
cpp = ['aarch64-linux-gnu-g++', '--sysroot=' + root]
ar = 'aarch64-linux-gnu-gcc-ar'
strip = 'aarch64-linux-gnu-strip'
pkgconfig = 'pkg-config'
${emulator:+exe_wrapper = $emulator}

[properties]
sys_root = root
pkg_config_libdir = [
    root / 'usr/lib/aarch64-linux-gnu/pkgconfig',
    root / 'usr/share/pkgconfig',
    ]
${emulator:+emulator = $emulator}

[host_machine]
system = 'linux'
cpu_family = 'aarch64'
cpu = 'aarch64'
endian = 'little'
END
}

# write_if_new FILE: writes standard input into FILE unless it has that content: a
# newer cross file deletes the build directory.
write_if_new() {
    cat >"$1.new"
    if cmp -s "$1.new" "$1"; then
        rm "$1.new"
    else
        mv "$1.new" "$1"
    fi
}
