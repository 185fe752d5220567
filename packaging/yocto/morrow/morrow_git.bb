# SPDX-License-Identifier: Apache-2.0
#
# Builds morrow in a BMC distribution. Copy this directory into a layer and say
# there (or in local.conf) where the layer fetches the tree from:
#
#     MORROW_SRC_URI = "git://SERVER/morrow.git;protocol=https;branch=main"
#     SRCREV:pn-morrow = "..."
#
# What is here was checked against the tree only: that the options exist, that
# the files are installed under these names, and that the licence's sum is
# right. No bitbake has run it.

SUMMARY = "Publishes MCTP endpoints behind I3C buses on the D-Bus"
DESCRIPTION = "Re-binds a BMC's two I3C controllers when the host runs, sends \
each endpoint the MCTP command Discovery Notify and publishes each one that \
answers on the system D-Bus."
SECTION = "base"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# Checked out where S is by default, in old releases and new.
SRC_URI = "${MORROW_SRC_URI};destsuffix=${BP}"
PV = "0.1.0+git"

inherit features_check meson pkgconfig python3native systemd

REQUIRED_DISTRO_FEATURES = "systemd"
# The platform's interface is laid out for 64 bits.
COMPATIBLE_HOST = "(aarch64|x86_64).*-linux"

DEPENDS = "systemd"

# The simulated board and the tests are for the developer's desk, as are errors
# of what a newer compiler warns of.
EXTRA_OEMESON = " \
    -Drelease=true \
    -Dwerror=false \
    -Dboard=disabled \
    -Dtests=disabled \
    -Dsystemd_unit_dir=${systemd_system_unitdir} \
"

# vendor-libraries: the board's own platform libraries, which the recipe that
# MORROW_PLATFORM_LIBRARIES names provides; where they have names of their own,
# add -Dplatform_log, _hal, _lock and _mctp to EXTRA_OEMESON. Without it, the
# stand-ins are built and packaged as ${PN}-platform.
MORROW_PLATFORM_LIBRARIES ??= ""
PACKAGECONFIG[vendor-libraries] = "-Dplatform=external,-Dplatform=bundled,${MORROW_PLATFORM_LIBRARIES},${MORROW_PLATFORM_LIBRARIES}"

# system-sdbusplus: the distribution's bus wrapper with its generator. Without
# it, the part in the tree, whose generator needs Mako and PyYAML.
PACKAGECONFIG[system-sdbusplus] = "-Dsdbusplus=system,-Dsdbusplus=bundled,sdbusplus python3-sdbus++-native"
DEPENDS += "${@bb.utils.contains('PACKAGECONFIG', 'system-sdbusplus', '', 'python3-mako-native python3-pyyaml-native', d)}"

PACKAGECONFIG ??= "system-sdbusplus"

SYSTEMD_SERVICE:${PN} = "morrow.service morrow-return.service"

PACKAGES =+ "${PN}-platform"

FILES:${PN} += " \
    ${libexecdir}/morrow/morrow \
    ${datadir}/dbus-1/system.d/xyz.openbmc_project.mctp.conf \
    ${systemd_system_unitdir}/morrow.service \
    ${systemd_system_unitdir}/morrow-return.service \
"
FILES:${PN}-platform = " \
    ${libdir}/libplatform-*${SOLIBS} \
    ${nonarch_libdir}/tmpfiles.d/morrow-platform.conf \
"

# The libraries that it links with follow by themselves.
VIRTUAL-RUNTIME_dbus ??= "dbus"
RDEPENDS:${PN} += "${VIRTUAL-RUNTIME_dbus}"
