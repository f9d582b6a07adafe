# 64-bit big-endian IBM Z (Debian s390x): see cmake/cross-toolchain.cmake.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(KELP_CROSS_TRIPLE s390x-linux-gnu)
set(KELP_CROSS_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
