# Compile options, as targets: focus_options for the simulated camera, focus_tests for the tests,
# focus_product for what runs on a camera, focus_base for what all share.

include(CheckCXXCompilerFlag)

option(FOCUS_WERROR "Treat warnings as errors" OFF)
set(FOCUS_SANITIZE "" CACHE STRING "Sanitizers to build with, as for -fsanitize=")
option(FOCUS_COVERAGE "Instrument src/ for coverage: gcov, or with clang its conditions" OFF)

# For everything, with and without sanitizers.
add_library(focus_base INTERFACE)
target_compile_options(focus_base INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wformat=2 -Wundef
    -Wcast-align -Wcast-qual -Wdouble-promotion
    # The bar's columns depend on IEEE 754 arithmetic in the order of the source. A fused
    # multiply-add rounds once instead of twice. This order: clang's -fno-fast-math allows fusing.
    -fno-fast-math -ffp-contract=off)
# GCC has this one since version 6.
check_cxx_compiler_flag(-Wnull-dereference FOCUS_HAS_NULL_DEREFERENCE)
if(FOCUS_HAS_NULL_DEREFERENCE)
    target_compile_options(focus_base INTERFACE -Wnull-dereference)
endif()
# The same sources give the same bytes in every folder. GCC 8 and clang 10 have the option.
check_cxx_compiler_flag(-ffile-prefix-map=/from=to FOCUS_HAS_FILE_PREFIX_MAP)
if(FOCUS_HAS_FILE_PREFIX_MAP)
    target_compile_options(focus_base INTERFACE
        -ffile-prefix-map=${PROJECT_BINARY_DIR}=build -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
endif()
if(FOCUS_WERROR)
    target_compile_options(focus_base INTERFACE -Werror)
endif()

add_library(focus_sanitized INTERFACE)
target_link_libraries(focus_sanitized INTERFACE focus_base)
if(FOCUS_SANITIZE)
    target_compile_options(focus_sanitized INTERFACE
        -fsanitize=${FOCUS_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(focus_sanitized INTERFACE -fsanitize=${FOCUS_SANITIZE})
endif()

add_library(focus_options INTERFACE)
target_link_libraries(focus_options INTERFACE focus_sanitized)
target_compile_features(focus_options INTERFACE cxx_std_20)
# Line tables are enough here; variables of templates would take a quarter of the compile time.
target_compile_options(focus_options INTERFACE $<$<CONFIG:RelWithDebInfo>:-g1>)

# Like focus_options, but without a search for undefined behavior: it is for the code under test, and
# takes 40 % of the time to compile a test.
add_library(focus_tests INTERFACE)
target_link_libraries(focus_tests INTERFACE focus_base)
target_compile_features(focus_tests INTERFACE cxx_std_20)
if(FOCUS_SANITIZE)
    string(REPLACE ",undefined" "" tests_sanitize ${FOCUS_SANITIZE})
    target_compile_options(focus_tests INTERFACE
        -fsanitize=${tests_sanitize} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(focus_tests INTERFACE -fsanitize=${FOCUS_SANITIZE})
endif()

add_library(focus_product INTERFACE)
target_link_libraries(focus_product INTERFACE focus_sanitized)
target_compile_options(focus_product INTERFACE
    -pedantic-errors
    -fno-exceptions -fno-rtti -fno-asynchronous-unwind-tables -fno-threadsafe-statics
    # The smallest build leaves out unused functions; the others keep them for a debugger.
    "$<$<CONFIG:MinSizeRel>:-ffunction-sections;-fdata-sections>")
target_link_options(focus_product INTERFACE $<$<CONFIG:MinSizeRel>:LINKER:--gc-sections>)
if(FOCUS_COVERAGE AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang") # conditions, from clang 18 on
    target_compile_options(focus_product INTERFACE
        -fprofile-instr-generate -fcoverage-mapping -fcoverage-mcdc -O0)
    target_link_options(focus_product INTERFACE -fprofile-instr-generate)
elseif(FOCUS_COVERAGE)
    target_compile_options(focus_product INTERFACE --coverage -O0)
    target_link_options(focus_product INTERFACE --coverage)
endif()

# The language of the product: C++11 without extensions, so that an old compiler builds it.
function(focus_cxx11 target)
    set_target_properties(${target} PROPERTIES
        CXX_STANDARD 11 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
endfunction()
