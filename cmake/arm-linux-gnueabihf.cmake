# Cross build for 32-bit ARM, hard float, with Debian's g++-arm-linux-gnueabihf. ./build-arm makes
# the sysroot from Debian's armhf packages; another one is named with -DKIV_ARM_SYSROOT=/path.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KIV_ARM_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/arm-sysroot CACHE PATH
    "Headers and libraries of the set")
get_filename_component(CMAKE_SYSROOT ${KIV_ARM_SYSROOT} ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT}/usr/include)
  message(FATAL_ERROR "There is no sysroot in ${CMAKE_SYSROOT}: ./build-arm --sysroot makes it")
endif()
# CMake reads this file again, without the cache, for each program that it tries.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KIV_ARM_SYSROOT)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# 64 bits for file sizes, inode numbers and times, as on 64-bit hosts: stat() refuses larger numbers
# otherwise, and the clock ends in 2038. Debian's libraries have 32 bits for a time_t here: of their
# calls only those may be used that take none, or that take it in the same registers either way, as
# X509_STORE_CTX_set_time does with its third argument.
# No notes on a change of the calling convention in an older compiler: all is built by this one.
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 -Wno-psabi")

# Programs run on the host; headers, libraries and packages are the set's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

# How CTest runs the programs on a host of another kind.
find_program(KIV_QEMU_ARM qemu-arm)
if(KIV_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KIV_QEMU_ARM} -L ${CMAKE_SYSROOT})
endif()
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
