# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash disable=SC2154 # what common.sh, stages.sh and arm64.sh set
#
# What a virtual board boots: Debian's kernel for virtual machines, our module
# for it, and an initial RAM disk that is the whole system. To be sourced after
# common.sh, stages.sh, arm64.sh and cross_file.sh. What seldom changes is a
# stage in the cache; a change of the daemon, of a unit or of the module costs
# their build and a small archive, which is put behind the big one.

virtual=$top/build/virtual-board

# virtual_kernel: sets `kernel` to a directory with Image, the drivers that a
# virtual machine needs, and below headers/ what modules are built with.
virtual_kernel() {
    local key
    arm64_base
    key=$({
        echo "$arm64"
        declare -f unpack_kernel
    } | key_of)
    stage kernel "$key" unpack_kernel
    kernel=$staged
}

unpack_kernel() {
    local directory=$1 package modules
    for package in "$arm64"/kernel/*.deb; do
        dpkg-deb -x "$package" "$directory/headers" || return
    done
    mv "$directory"/headers/boot/vmlinuz-* "$directory/Image"
    modules=$(echo "$directory"/headers/lib/modules/*/kernel)
    cp "$modules"/drivers/virtio/virtio{,_ring,_mmio}.ko \
        "$modules/drivers/char/virtio_console.ko" "$directory"
    rm -r "$directory/headers/boot" "$modules"
    # They include the common headers by the path that these have on a machine
    # of their own; make works in their directory.
    sed -i 's,/usr/src/,../,' \
        "$directory"/headers/usr/src/linux-headers-*-cloud-arm64/Makefile
}

# virtual_module: sets `module` to a directory with i3c_mctp_board.ko.
virtual_module() {
    local key
    key=$({
        echo "$kernel"
        cat "$top"/virtual-board/kernel-module/*
        declare -f build_module
    } | key_of)
    stage module "$key" build_module
    module=$staged
}

build_module() {
    local directory=$1 headers log=$1/build.log
    headers=$(echo "$kernel"/headers/usr/src/linux-headers-*-cloud-arm64)
    mkdir "$directory/source" &&
        cp "$top"/virtual-board/kernel-module/* "$directory/source" || return
    if ! make -C "$headers" M="$directory/source" ARCH=arm64 \
        CROSS_COMPILE=aarch64-linux-gnu- KCFLAGS=-Werror modules >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
    aarch64-linux-gnu-strip --strip-debug \
        -o "$directory/i3c_mctp_board.ko" "$directory/source/i3c_mctp_board.ko"
    rm -r "$directory/source"
}

# virtual_build: builds what runs on the board from the working tree, and sets
# `installed` to the directory that it is installed in.
virtual_build() {
    local build=$virtual/build log=$virtual/build.log
    installed=$virtual/installed
    virtual_cross_file | write_if_new "$virtual/arm64.ini"
    : >"$log"
    logged "$log" configure "$build" --cross-file "$virtual/arm64.ini"
    logged "$log" meson compile -C "$build"
    rm -rf "$installed"
    logged "$log" meson install -C "$build" --destdir "$installed" \
        --no-rebuild --strip
}

virtual_cross_file() {
    cross_file
    cat <<'END'

[built-in options]
prefix = '/usr'
libdir = 'lib'

[project options]
board = 'disabled'
release = true
systemd_unit_dir = '/usr/lib/systemd/system'
tests = 'disabled'
virtual_board = true
END
}

# virtual_packages: sets `packaged` to a directory with the contents of the
# ARM64 packages of the last commit, and makes those where they are not there.
virtual_packages() {
    local package packages=$top/build/packages
    if [ -z "$(find "$packages" -name 'morrow_*_arm64.deb' \
        -newermt "$(git -C "$top" log -1 --format=%cI)" 2>/dev/null)" ]; then
        "$top/scripts/package" --arch arm64
    fi
    packaged=$virtual/packaged
    rm -rf "$packaged"
    for package in "$packages"/{morrow,libmorrow-platform1}_*_arm64.deb; do
        dpkg-deb -x "$package" "$packaged" ||
            fail "cannot unpack $package: remove it and run this again"
    done
    # The host-state service is no part of any package.
    mkdir -p "$packaged/usr/bin"
    cp "$installed/usr/bin/morrow-host" "$packaged/usr/bin"
}

# What a board does without: what programs are built with, what installs
# packages, and other languages and character sets.
left_out=(
    'boot/*' kernel usr/include usr/share/doc usr/share/man usr/share/locale
    'usr/share/perl*' 'usr/lib/*/perl*' 'usr/bin/perl*' 'usr/lib/*/gconv'
    usr/lib/gcc usr/share/i18n usr/share/zoneinfo usr/share/bash-completion
    var/lib/dpkg 'usr/bin/dpkg*' 'usr/bin/apt*' usr/lib/apt usr/share/pkgconfig
    'usr/lib/*/pkgconfig' 'usr/lib/*/cmake' usr/lib/udev/hwdb.d usr/share/dpkg
    usr/src 'usr/lib/*/libasan*' 'usr/lib/*/libtsan*' 'usr/lib/*/liblsan*'
    'usr/lib/*/libubsan*' 'usr/lib/*/libhwasan*' 'usr/lib/*/libgomp*'
    'usr/lib/*/libitm*' 'usr/lib/*/libgtest*' 'usr/lib/*/libgmock*'
)

# virtual_base: sets `base` to a directory with base.cpio, the board's
# system without anything of ours.
virtual_base() {
    local key
    key=$({
        echo "$arm64" "${left_out[@]}"
        declare -f pack_base archive
    } | key_of)
    stage base "$key" pack_base
    base=$staged
}

pack_base() {
    local directory=$1 root=$1/root pattern
    cp -a "$arm64/root" "$root" || return
    for pattern in "${left_out[@]}"; do
        # shellcheck disable=SC2086 # a pattern
        rm -rf "${root:?}"/$pattern
    done
    find "$root/usr/lib" \( -name '*.a' -o -name '*.o' \) -delete
    ln -s sbin/init "$root/init"
    [ -e "$root/usr/bin/sh" ] || ln -s bash "$root/usr/bin/sh"
    # As it is: an emulated processor takes seconds to decompress it.
    archive "$root" >"$directory/base.cpio" || return
    rm -r "$root"
}

# archive DIRECTORY: what is below it, as the kernel unpacks it. The same files
# give the same archive, whenever they were made: only so a machine's kept state
# is found again.
archive() {
    (
        cd "$1" || return
        find . -exec touch --no-dereference --date=@0 {} +
        find . | LC_ALL=C sort | cpio --quiet -o -H newc -R 0:0 --reproducible
    )
}

# What a board of this kind does without, and takes time in emulation: links to
# nowhere keep these units from starting. udev is there, but does not go through
# what was there before it.
masked=(
    dev-hugepages.mount dev-mqueue.mount sys-fs-fuse-connections.mount
    sys-kernel-config.mount sys-kernel-debug.mount sys-kernel-tracing.mount
    proc-sys-fs-binfmt_misc.automount
    kmod-static-nodes.service modprobe@.service systemd-modules-load.service
    systemd-udev-trigger.service systemd-udev-settle.service
    systemd-firstboot.service systemd-sysusers.service systemd-sysctl.service
    systemd-remount-fs.service systemd-random-seed.service
    systemd-journal-flush.service systemd-pcrphase.service
    systemd-pcrphase-sysinit.service systemd-update-utmp.service
    systemd-update-utmp-runlevel.service systemd-user-sessions.service
    systemd-logind.service systemd-networkd.service systemd-networkd.socket
    systemd-network-generator.service systemd-ask-password-console.path
    systemd-ask-password-wall.path
    getty.target e2scrub_reap.service fstrim.timer
    systemd-tmpfiles-clean.timer apt-daily.timer apt-daily-upgrade.timer
    dpkg-db-backup.timer
)

# The one that stays reads what the kernel's parameters say of units.
masked_generators=(
    cryptsetup fstab getty gpt-auto hibernate-resume integritysetup
    rc-local run system-update sysv veritysetup
)

# enable_units ROOT: what `systemctl enable` does in a running system, for the
# services of the daemon and of the board's drivers. The daemon's timer is for the
# target service alone.
enable_units() {
    local root=$1 unit by wanted_by
    for unit in "$root"/usr/lib/systemd/system/morrow*.service \
        "$root/etc/systemd/system/board-kernel.service"; do
        read -ra wanted_by < <(sed -n 's/^WantedBy=//p' "$unit") || continue
        for by in "${wanted_by[@]}"; do
            mkdir -p "$root/etc/systemd/system/$by.wants"
            ln -sfn "${unit#"$root"}" "$root/etc/systemd/system/$by.wants"
        done
    done
}

# virtual_image BROKER INSTALLED: sets `image` to a directory with Image and
# initrd: a board with this broker and what this directory has.
virtual_image() {
    local broker=$1 installed=$2 root=$virtual/payload unit
    image=$virtual/image
    rm -rf "$root"
    mkdir -p "$root/usr/lib/board" "$image"
    cp -a "$top/virtual-board/image/." "$root"
    cp "$kernel"/*.ko "$module"/*.ko "$root/usr/lib/board"
    cp -a "$installed/." "$root"
    # The base has links where these may be directories.
    for unit in bin sbin lib; do
        [ ! -d "$root/$unit" ] || {
            mkdir -p "$root/usr/$unit"
            cp -a "$root/$unit/." "$root/usr/$unit"
            rm -r "${root:?}/$unit"
        }
    done
    # dbus-daemon's own unit has the name already.
    [ "$broker" = dbus-daemon ] ||
        ln -sfn "/lib/systemd/system/$broker.service" \
            "$root/etc/systemd/system/dbus.service"
    enable_units "$root"
    for unit in "${masked[@]}"; do
        ln -sfn /dev/null "$root/etc/systemd/system/$unit"
    done
    mkdir -p "$root/etc/systemd/system-generators"
    for unit in "${masked_generators[@]}"; do
        ln -sfn /dev/null "$root/etc/systemd/system-generators/systemd-$unit-generator"
    done
    ln -sfn "$kernel/Image" "$image/Image"
    { cat "$base/base.cpio" && archive "$root"; } >"$image/initrd"
}
