# Debian's armhf; see scripts/cross.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(DEBIAN_TRIPLET arm-linux-gnueabihf)
set(QEMU_NAME arm)
# Disables GCC's notes about the calling convention before GCC 7; one compiler builds everything.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
