# Debian's armhf; see scripts/cross.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(DEBIAN_TRIPLET arm-linux-gnueabihf)
set(QEMU_NAME arm)
# GCC notes where the calling convention differs from that before GCC 7; all is built with one compiler.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
