# libsystemd as the target `PkgConfig::libsystemd`, if the daemon reports to systemd: KVSNMP_SYSTEMD is ON, or AUTO with
# the library installed.

if(KVSNMP_SYSTEMD STREQUAL "AUTO")
    pkg_check_modules(libsystemd IMPORTED_TARGET libsystemd)
elseif(KVSNMP_SYSTEMD)
    pkg_check_modules(libsystemd REQUIRED IMPORTED_TARGET libsystemd)
endif()
