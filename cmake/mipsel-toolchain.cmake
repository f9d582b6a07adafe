# 32-bit little-endian MIPS (Debian mipsel): see cmake/cross-toolchain.cmake.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(KELP_CROSS_TRIPLE mipsel-linux-gnu)
set(KELP_CROSS_QEMU qemu-mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
