# The camera's architecture with the distribution's compiler: 32-bit ARM, hard float, glibc.
#
# scripts/sysroot unpacks the headers and libraries for it into the folder sysroot-armhf beside the
# build folder, unless they are there. Programs run here under qemu-arm.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi") # remarks on how GCC 6 passed arguments

if(NOT FOCUS_SYSROOT_ARMHF) # set in the compiler checks, whose build folder is another one
    cmake_path(SET FOCUS_SYSROOT_ARMHF NORMALIZE "${CMAKE_BINARY_DIR}/../sysroot-armhf")
    execute_process(COMMAND "${CMAKE_CURRENT_LIST_DIR}/../scripts/sysroot" "${FOCUS_SYSROOT_ARMHF}"
        COMMAND_ERROR_IS_FATAL ANY)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES FOCUS_SYSROOT_ARMHF)
set(CMAKE_SYSROOT "${FOCUS_SYSROOT_ARMHF}")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${CMAKE_SYSROOT}")
if(FOCUS_SANITIZE MATCHES "address")
    # The leak checker stops the program's threads with ptrace, which the emulator does not have.
    # Given by env: the sanitizer reads the environment of the emulator itself, not the -E options.
    list(PREPEND CMAKE_CROSSCOMPILING_EMULATOR env ASAN_OPTIONS=detect_leaks=0)
endif()
