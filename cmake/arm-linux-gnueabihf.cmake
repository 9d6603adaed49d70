# Cross build for the target: 32-bit ARM Linux, hard-float ABI, with Debian's
# cross compiler (package g++-arm-linux-gnueabihf). Building needs nothing
# more; running kel's own tests needs user-mode emulation (package
# qemu-user), which test discovery and ctest use when it is installed.
#
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
#
# GoogleTest is then built for the target from /usr/src/googletest (see
# tests/CMakeLists.txt); Google Benchmark has no ARM build here, so the
# benchmarks are off. Without qemu, add -DKEL_BUILD_TESTS=OFF.
#
# An application cross-built against an installed kel uses this file too and
# names the prefix twice: -DCMAKE_PREFIX_PATH=<prefix> to search it, and
# -DCMAKE_FIND_ROOT_PATH=<prefix>, since packages are searched for only under
# the roots listed here.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KEL_TARGET_TRIPLE arm-linux-gnueabihf)
set(KEL_TARGET_SYSROOT /usr/${KEL_TARGET_TRIPLE})

set(CMAKE_C_COMPILER ${KEL_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KEL_TARGET_TRIPLE}-g++)

# Libraries and headers come from the target's trees only; programs (cmake's
# helpers) from the host.
list(APPEND CMAKE_FIND_ROOT_PATH ${KEL_TARGET_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(KEL_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(KEL_QEMU_ARM)
  # -L: the emulated program's dynamic loader and libraries come from the
  # target's tree; paths that do not exist there (the build tree) are used as is.
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KEL_QEMU_ARM} -L ${KEL_TARGET_SYSROOT})
endif()

set(KEL_BUILD_BENCH OFF CACHE BOOL "No Google Benchmark for the target" FORCE)
