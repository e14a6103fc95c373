# libsystemd as the target `PkgConfig::libsystemd`, when the daemon is to report to systemd: KVSNMP_SYSTEMD is ON, or AUTO
# and the library is there.

if(KVSNMP_SYSTEMD STREQUAL "AUTO")
    pkg_check_modules(libsystemd IMPORTED_TARGET libsystemd)
elseif(KVSNMP_SYSTEMD)
    pkg_check_modules(libsystemd REQUIRED IMPORTED_TARGET libsystemd)
endif()
