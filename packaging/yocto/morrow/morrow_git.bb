# SPDX-License-Identifier: Apache-2.0
#
# Builds morrow in a BMC distribution: mickledore (4.2) or later, the first with
# a new enough Meson (1.0.1). Copy this directory into a layer and say there (or
# in local.conf) where the tree is fetched from and which commit is built:
#
#     MORROW_SRC_URI = "git://SERVER/morrow.git;protocol=https;branch=main"
#     SRCREV:pn-morrow = "..."
#
# Without these two the recipe is skipped, and BitBake names the reason.
#
# PACKAGECONFIG:
#
# system-sdbusplus   The distribution's bus wrapper with its generator, which
#                    come from the layer meta-phosphor: the default where that
#                    layer is. Without it, the part in the tree, which is linked
#                    into the daemon.
# vendor-libraries   The board's own platform libraries. The recipes that
#                    MORROW_PLATFORM_LIBRARIES names provide them; they find the
#                    contract's headers by DEPENDS = "morrow-platform-headers".
#                    Where the libraries have names of their own, add
#                    -Dplatform_log, _hal, _lock and _mctp to EXTRA_OEMESON.
#                    Without it, the reference implementation in platform/ is
#                    built and packaged as morrow-platform.

SUMMARY = "Publishes MCTP endpoints behind I3C buses on the D-Bus"
DESCRIPTION = "Re-binds a BMC's two I3C controllers when the host runs, sends \
each endpoint the MCTP command Discovery Notify and publishes each one that \
answers on the system D-Bus."
SECTION = "base"

require morrow.inc

inherit features_check meson pkgconfig python3native systemd

REQUIRED_DISTRO_FEATURES = "systemd"
# The platform's interface is laid out for 64 bits.
COMPATIBLE_HOST = "(aarch64|x86_64).*-linux"

DEPENDS = "systemd"

# The simulated board and the tests are for the developer's desk.
EXTRA_OEMESON = " \
    -Drelease=true \
    -Dboard=disabled \
    -Dtests=disabled \
    -Dsystemd_unit_dir=${systemd_system_unitdir} \
    -Ddbus_policy_dir=${datadir}/dbus-1/system.d \
"

PACKAGECONFIG ??= "${@bb.utils.contains('BBFILE_COLLECTIONS', 'phosphor-layer', 'system-sdbusplus', '', d)}"

# The bundled wrapper's generator needs Mako and PyYAML.
PACKAGECONFIG[system-sdbusplus] = "-Dsdbusplus=system,-Dsdbusplus=bundled,sdbusplus python3-sdbus++-native"
DEPENDS += "${@bb.utils.contains('PACKAGECONFIG', 'system-sdbusplus', '', 'python3-mako-native python3-pyyaml-native', d)}"

MORROW_PLATFORM_LIBRARIES ??= ""
PACKAGECONFIG[vendor-libraries] = "-Dplatform=external,-Dplatform=bundled,${MORROW_PLATFORM_LIBRARIES},${MORROW_PLATFORM_LIBRARIES}"

python () {
    vendor = bb.utils.contains('PACKAGECONFIG', 'vendor-libraries', True, False, d)
    if vendor and not d.getVar('MORROW_PLATFORM_LIBRARIES').strip():
        raise bb.parse.SkipRecipe(
            'PACKAGECONFIG has vendor-libraries and MORROW_PLATFORM_LIBRARIES is'
            ' empty: set it to the recipes that provide the libraries')
}

SYSTEMD_SERVICE:${PN} = "morrow.service morrow-return.service morrow-watch.timer"

PACKAGES =+ "${PN}-platform"

FILES:${PN} += "${datadir}/dbus-1/system.d/xyz.openbmc_project.mctp.conf"
FILES:${PN}-platform = " \
    ${libdir}/libplatform-*${SOLIBS} \
    ${nonarch_libdir}/tmpfiles.d/morrow-platform.conf \
"

# The libraries that it links with follow by themselves.
VIRTUAL-RUNTIME_dbus ??= "dbus"
RDEPENDS:${PN} += "${VIRTUAL-RUNTIME_dbus}"
