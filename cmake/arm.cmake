# The camera's architecture with the distribution's compiler: 32-bit ARM, glibc, hard float, or with
# FOCUS_SOFT_FLOAT an ARMv5TE processor without a floating-point unit.
#
# scripts/sysroot unpacks the headers and libraries for it into the folder sysroot-armhf or
# sysroot-armel beside the build folder, unless they are there. Programs run here under qemu-arm.

set(FOCUS_SOFT_FLOAT OFF CACHE BOOL "Build for ARMv5TE, soft float")
if(FOCUS_SOFT_FLOAT)
    set(triplet arm-linux-gnueabi)
    set(architecture armel)
    set(emulated_cpu -cpu arm926)
    set(CMAKE_CXX_FLAGS_INIT "-march=armv5te -mfloat-abi=soft -Wno-psabi")
else()
    set(triplet arm-linux-gnueabihf)
    set(architecture armhf)
    set(emulated_cpu "")
    set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi") # notes on how GCC 6 passed arguments
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

if(NOT FOCUS_ARM_SYSROOT) # set in the compiler checks, whose build folder is another one
    cmake_path(SET FOCUS_ARM_SYSROOT NORMALIZE "${CMAKE_BINARY_DIR}/../sysroot-${architecture}")
    execute_process(COMMAND
        "${CMAKE_CURRENT_LIST_DIR}/../scripts/sysroot" "${FOCUS_ARM_SYSROOT}" ${architecture}
        COMMAND_ERROR_IS_FATAL ANY)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES FOCUS_ARM_SYSROOT FOCUS_SOFT_FLOAT)
set(CMAKE_SYSROOT "${FOCUS_ARM_SYSROOT}")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm ${emulated_cpu} -L "${CMAKE_SYSROOT}")
if(FOCUS_SANITIZE MATCHES "address")
    # The leak checker stops the program's threads with ptrace, which the emulator does not have.
    # Given by env: the sanitizer reads the environment of the emulator itself, not the -E options.
    list(PREPEND CMAKE_CROSSCOMPILING_EMULATOR env ASAN_OPTIONS=detect_leaks=0)
endif()
