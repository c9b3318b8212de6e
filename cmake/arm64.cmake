# Cross-builds for 64-bit ARM with Debian's cross compiler and runs what was built under qemu. The libraries come from a
# folder that scripts/arm64.sh fills.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

# Compiler checks are projects of their own, which have to know the folder too.
set(QX_ARM64_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/arm64-sysroot" CACHE PATH "Folder of the ARM libraries")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QX_ARM64_SYSROOT)
file(REAL_PATH "${QX_ARM64_SYSROOT}" CMAKE_SYSROOT)
if(NOT EXISTS "${CMAKE_SYSROOT}/usr/lib")
    message(FATAL_ERROR "${CMAKE_SYSROOT} holds no libraries for ARM: run scripts/arm64.sh, which fills it, or name "
                        "another folder with -DQX_ARM64_SYSROOT=...")
endif()

set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/arm64-run.sh;${CMAKE_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
