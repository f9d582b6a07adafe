# 32-bit ARM, hard-float (Debian armhf): see cmake/cross-toolchain.cmake.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(KELP_CROSS_TRIPLE arm-linux-gnueabihf)
set(KELP_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
