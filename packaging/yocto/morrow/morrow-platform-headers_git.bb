# SPDX-License-Identifier: Apache-2.0
#
# The headers of the platform contract alone, for the recipe of a board's own
# platform libraries to depend on. It depends on nothing, so that morrow can
# depend on those libraries.

SUMMARY = "Contract between morrow and a board's platform libraries"
DESCRIPTION = "C and C++ headers of what morrow calls: the debug log, the \
hardware's values, the locks of devices and the MCTP transport."
SECTION = "libs"

require morrow.inc

# The same commit as the daemon.
SRCREV = "${@d.getVar('SRCREV:pn-morrow') or 'INVALID'}"

inherit allarch

INHIBIT_DEFAULT_DEPS = "1"
do_configure[noexec] = "1"
do_compile[noexec] = "1"

do_install() {
    install -d ${D}${includedir}/platform
    install -m 0644 ${S}/platform/include/platform/* ${D}${includedir}/platform
}

# Headers are all there is: -dev goes without the empty package.
RDEPENDS:${PN}-dev = ""
RRECOMMENDS:${PN}-dev = ""
