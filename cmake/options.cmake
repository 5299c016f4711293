# Compile options, as targets: focus_options for everything, focus_product for what runs on a camera.

option(FOCUS_WERROR "Treat warnings as errors" OFF)
set(FOCUS_SANITIZE "" CACHE STRING "Sanitizers to build with, as for -fsanitize=")
option(FOCUS_COVERAGE "Instrument src/ for gcov" OFF)

# What holds for everything, built with a sanitizer or not.
add_library(focus_base INTERFACE)
target_compile_features(focus_base INTERFACE cxx_std_20)
target_compile_options(focus_base INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wformat=2 -Wundef
    -Wcast-align -Wcast-qual -Wnull-dereference -Wdouble-promotion
    # A fused multiply-add rounds once instead of twice and moves columns of the bar.
    -ffp-contract=off)
# The same sources give the same bytes in every folder.
target_compile_options(focus_base INTERFACE
    -ffile-prefix-map=${PROJECT_BINARY_DIR}=build -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
if(FOCUS_WERROR)
    target_compile_options(focus_base INTERFACE -Werror)
endif()

add_library(focus_options INTERFACE)
target_link_libraries(focus_options INTERFACE focus_base)
if(FOCUS_SANITIZE)
    target_compile_options(focus_options INTERFACE
        -fsanitize=${FOCUS_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(focus_options INTERFACE -fsanitize=${FOCUS_SANITIZE})
endif()

add_library(focus_product INTERFACE)
target_link_libraries(focus_product INTERFACE focus_options)
target_compile_options(focus_product INTERFACE
    -fno-exceptions -fno-rtti -fno-asynchronous-unwind-tables -fno-threadsafe-statics
    # The smallest build leaves out what nothing calls; the others keep it for a debugger.
    "$<$<CONFIG:MinSizeRel>:-ffunction-sections;-fdata-sections>")
target_link_options(focus_product INTERFACE $<$<CONFIG:MinSizeRel>:LINKER:--gc-sections>)
if(FOCUS_COVERAGE)
    target_compile_options(focus_product INTERFACE --coverage -O0)
    target_link_options(focus_product INTERFACE --coverage)
endif()
