# Cross builds with Debian's cross compilers and the target's libraries
# installed beside the native ones (multiarch). Included by the toolchain
# file of each target (cmake/<arch>-toolchain.cmake), which sets
# CMAKE_SYSTEM_PROCESSOR, KELP_CROSS_TRIPLE and KELP_CROSS_QEMU first:
#   cmake -S . -B build-cross-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/arm64-toolchain.cmake
# (`make cross ARCH=arm64` installs the packages, builds, and runs the unit
# tests and fuzz replays under qemu-user.)
set(CMAKE_SYSTEM_NAME Linux)

set(CMAKE_C_COMPILER ${KELP_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KELP_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${KELP_CROSS_TRIPLE})

# Libraries and packages only of the target; programs (python3, cmake) of the host.
set(CMAKE_FIND_ROOT_PATH /usr/${KELP_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${KELP_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Test programs run through qemu-user, with the target's loader and libraries.
find_program(KELP_QEMU ${KELP_CROSS_QEMU}-static ${KELP_CROSS_QEMU})
if(KELP_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KELP_QEMU};-L;/usr/${KELP_CROSS_TRIPLE})
endif()

# KELP_CROSS_STATIC: every program linked statically. qemu-user runs a
# static program's fork() children fine where a dynamically linked child
# crashes at start (the unit tests' death tests fork), so the test tree is
# static; the tree whose kelpd is measured for size stays dynamic.
if(KELP_CROSS_STATIC)
  set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
  set(kelp_libdir /usr/lib/${KELP_CROSS_TRIPLE})
  set(pkgcfg_lib_MXML_mxml ${kelp_libdir}/libmxml.a CACHE FILEPATH "")
  set(MBEDTLS_TLS ${kelp_libdir}/libmbedtls.a CACHE FILEPATH "")
  set(MBEDTLS_X509 ${kelp_libdir}/libmbedx509.a CACHE FILEPATH "")
  set(MBEDTLS_CRYPTO ${kelp_libdir}/libmbedcrypto.a CACHE FILEPATH "")
endif()
