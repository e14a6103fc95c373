# A cross build with Debian's compiler and multiarch libraries. The including file sets DEBIAN_TRIPLET and QEMU_NAME.
# moc, rcc and qdbusxml2cpp are the build machine's: qtbase5-dev of any architecture installs them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${DEBIAN_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${DEBIAN_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${DEBIAN_TRIPLET})

# Uses net-snmp's .pc files, because net-snmp-config is a program for one architecture.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${DEBIAN_TRIPLET}/pkgconfig:/usr/share/pkgconfig)

# ctest's emulator for the programs, so that the kernel needs no support for foreign programs.
find_program(KVSNMP_QEMU NAMES qemu-${QEMU_NAME}-static qemu-${QEMU_NAME})
if(KVSNMP_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${KVSNMP_QEMU})
endif()
