# Cross build for the target: 32-bit ARM Linux, hard-float ABI, with Debian's
# cross compiler (package g++-arm-linux-gnueabihf). Test binaries run under
# user-mode emulation (package qemu-user), for test discovery and for ctest.
#
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
#
# GoogleTest is then built for the target from /usr/src/googletest (see
# tests/CMakeLists.txt); Google Benchmark has no ARM build here, so the
# benchmarks are off.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KEL_TARGET_TRIPLE arm-linux-gnueabihf)
set(KEL_TARGET_SYSROOT /usr/${KEL_TARGET_TRIPLE})

set(CMAKE_C_COMPILER ${KEL_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KEL_TARGET_TRIPLE}-g++)

# Libraries and headers come from the target's trees only; programs (cmake's
# helpers) from the host. A consumer adds the staging prefix of an installed
# kel with -DCMAKE_FIND_ROOT_PATH=<prefix> -DCMAKE_PREFIX_PATH=<prefix>.
list(APPEND CMAKE_FIND_ROOT_PATH ${KEL_TARGET_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(KEL_QEMU_ARM NAMES qemu-arm qemu-arm-static REQUIRED)
# -L: the emulated program's dynamic loader and libraries come from the
# target's tree; paths that do not exist there (the build tree) are used as is.
set(CMAKE_CROSSCOMPILING_EMULATOR ${KEL_QEMU_ARM} -L ${KEL_TARGET_SYSROOT})

set(KEL_BUILD_BENCH OFF CACHE BOOL "No Google Benchmark for the target" FORCE)
