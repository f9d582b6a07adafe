# 64-bit ARM (Debian arm64): see cmake/cross-toolchain.cmake.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(KELP_CROSS_TRIPLE aarch64-linux-gnu)
set(KELP_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
