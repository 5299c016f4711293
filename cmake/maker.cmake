# A camera maker's compiler and libraries, soft-float and hard-float alike.
#
#   cmake -S . -B build/camera -D CMAKE_TOOLCHAIN_FILE=cmake/maker.cmake
#       -D FOCUS_CROSS_PREFIX=/opt/maker/bin/arm-maker-linux-gnueabi-
#       -D FOCUS_SYSROOT=/opt/maker/sysroot
#       -D FOCUS_CODEC_LIBRARY=/opt/maker/sysroot/usr/lib/libqm7codec.so.2.0
#       -D FOCUS_CGI_LIBRARY=/opt/maker/sysroot/usr/lib/libcgi.so
#
# docs/porting.md says more.

set(FOCUS_CROSS_PREFIX "" CACHE STRING "The compiler's path and name without the final g++")
set(FOCUS_SYSROOT "" CACHE PATH "Folder with the camera's headers and libraries; empty: the compiler's")
set(FOCUS_TARGET_FLAGS "" CACHE STRING "Options for the camera's processor, as -mfloat-abi=softfp")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES FOCUS_CROSS_PREFIX FOCUS_SYSROOT FOCUS_TARGET_FLAGS)
if(NOT FOCUS_CROSS_PREFIX)
    message(FATAL_ERROR "Set FOCUS_CROSS_PREFIX to the compiler's path and name without the final g++")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER "${FOCUS_CROSS_PREFIX}g++")
set(CMAKE_CXX_FLAGS_INIT "${FOCUS_TARGET_FLAGS}")
if(FOCUS_SYSROOT)
    set(CMAKE_SYSROOT "${FOCUS_SYSROOT}")
endif()

# The simulated camera runs on a desktop machine; the tests need GoogleTest in the sysroot.
set(FOCUS_BUILD_SIMCAM OFF CACHE BOOL "Build the simulated camera")
set(FOCUS_BUILD_TESTS OFF CACHE BOOL "Build the tests")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
