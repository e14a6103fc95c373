# A cross build with Debian's compiler and multiarch libraries, for DEBIAN_TRIPLET and QEMU_NAME, which the file that
# includes this one sets. moc, rcc and qdbusxml2cpp are the build machine's: qtbase5-dev of any architecture brings them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${DEBIAN_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${DEBIAN_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${DEBIAN_TRIPLET})

# Of net-snmp the .pc files are taken: net-snmp-config is one program for one architecture.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${DEBIAN_TRIPLET}/pkgconfig:/usr/share/pkgconfig)

# What ctest runs the programs with, so that the machine needs to know nothing of foreign programs.
find_program(KVSNMP_QEMU NAMES qemu-${QEMU_NAME}-static qemu-${QEMU_NAME})
if(KVSNMP_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${KVSNMP_QEMU})
endif()
