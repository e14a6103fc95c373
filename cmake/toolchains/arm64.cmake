# Debian's arm64; see scripts/cross.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(DEBIAN_TRIPLET aarch64-linux-gnu)
set(QEMU_NAME aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
