# Recipe for Yocto/OpenEmbedded. NOT BUILT in this project: no test runs bitbake; a test only checks the options, the
# version and the checksum. Written for scarthgap (CMake 3.25 or later is needed) with meta-qt5, meta-oe and meta-networking:
#   BBFILES += "/path/of/kvsnmp/packaging/yocto/*.bb"      in the layer.conf of one of your layers
# The sources are the tree around the recipe. For a copy of the recipe elsewhere set EXTERNALSRC, or SRC_URI and S.
SUMMARY = "SNMP sub-agent of a public-address controller"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=5bc9d469440fd725f9584fc0f4714abb"

PV = "0.1.0+git"

DEPENDS = "qtbase qtbase-native net-snmp pugixml"

inherit externalsrc cmake_qt5 pkgconfig systemd update-rc.d

EXTERNALSRC = "${@os.path.abspath(d.getVar('FILE_DIRNAME') + '/../..')}"
EXTERNALSRC_BUILD = "${WORKDIR}/build"

# To use the maker's library instead of the stand-in, from a separate recipe that installs include/xrcommon and
# lib/libxrcommon.so below /usr:
#   DEPENDS += "xrcommon"
#   EXTRA_OECMAKE += "-DKVSNMP_XRCOMMON_ROOT=${STAGING_DIR_HOST}${prefix}"
EXTRA_OECMAKE = "-DBUILD_TESTING=OFF -DKVSNMP_SYSTEMD_UNIT_DIR=${systemd_system_unitdir}"

# The unit waits for the daemon's reports; without systemd they are not needed.
PACKAGECONFIG ??= "${@bb.utils.filter('DISTRO_FEATURES', 'systemd', d)}"
# The allocator, faster for requests: optional, from meta-oe where it has the recipe.
PACKAGECONFIG[mimalloc] = "-DKVSNMP_MIMALLOC=ON,-DKVSNMP_MIMALLOC=OFF,mimalloc"
PACKAGECONFIG[systemd] = "-DKVSNMP_SYSTEMD=ON,-DKVSNMP_SYSTEMD=OFF,systemd"

# Only kvsnmp starts snmpd. Disable net-snmp's service, in a net-snmp_%.bbappend:
#   SYSTEMD_AUTO_ENABLE:${PN}-server-snmpd = "disable"
#   INITSCRIPT_PARAMS:${PN}-server-snmpd = "stop 60 0 1 6 ."
SYSTEMD_SERVICE:${PN} = "kvsnmp.service"
INITSCRIPT_NAME = "kvsnmp"
INITSCRIPT_PARAMS = "defaults 91"

PACKAGES =+ "${PN}-simulator ${PN}-monitoring"
FILES:${PN} += "${datadir}/snmp/mibs/KVSNMP-MIB.txt ${nonarch_libdir}/tmpfiles.d/kvsnmp.conf"
FILES:${PN}-simulator = "${bindir}/talservice ${bindir}/talctl ${bindir}/kvsnmp-device ${bindir}/kvsnmp-fleet ${datadir}/kvsnmp-simulator"
FILES:${PN}-monitoring = "${datadir}/kvsnmp-monitoring"
CONFFILES:${PN} = "${sysconfdir}/snmp/kvagent.conf"

# ps and killall.
RDEPENDS:${PN} = "net-snmp-server-snmpd procps psmisc"
RRECOMMENDS:${PN} = "dbus"
RDEPENDS:${PN}-simulator = "${PN} python3-core"
RDEPENDS:${PN}-monitoring = "python3-core"
