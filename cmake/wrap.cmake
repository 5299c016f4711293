# Lets __wrap_NAME in the sources of a target answer the program's calls of NAME, as --wrap=NAME does:
#
#     focus_wrap(TARGET PRIVATE|INTERFACE NAME...)
#
# A 32-bit program that is built with 64-bit file sizes and times calls open, fstat and ioctl by other
# names. These are wrapped then, and the sources still say __wrap_open and __real_open.
#
# The build of a target named *_test fails unless the program calls every name: the linker ignores a
# wrapper that nothing refers to, for instance of a C++ function whose signature has changed. The names
# of other targets are not checked.
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("
    #include <fcntl.h>
    #if __SIZEOF_LONG__ != 4 || _FILE_OFFSET_BITS != 64
    #error off_t is long
    #endif
    int main() { return 0; }" FOCUS_FILE64_NAMES)
check_cxx_source_compiles("
    #include <fcntl.h>
    #if __SIZEOF_LONG__ != 4 || _TIME_BITS != 64
    #error time_t is long
    #endif
    int main() { return 0; }" FOCUS_TIME64_NAMES)
set(FOCUS_CALL_open open)
set(FOCUS_CALL_fstat fstat)
set(FOCUS_CALL_ioctl ioctl)
if(FOCUS_FILE64_NAMES)
    set(FOCUS_CALL_open open64)
    set(FOCUS_CALL_fstat fstat64)
endif()
if(FOCUS_TIME64_NAMES)
    set(FOCUS_CALL_fstat __fstat64_time64)
    set(FOCUS_CALL_ioctl __ioctl_time64)
endif()
foreach(name IN ITEMS open fstat ioctl)
    if(NOT "${FOCUS_CALL_${name}}" STREQUAL "${name}")
        add_compile_definitions(
            __wrap_${name}=__wrap_${FOCUS_CALL_${name}} __real_${name}=__real_${FOCUS_CALL_${name}})
    endif()
endforeach()

function(focus_wrap target scope)
    foreach(name IN LISTS ARGN)
        if(DEFINED FOCUS_CALL_${name})
            set(name ${FOCUS_CALL_${name}})
        endif()
        target_link_options(${target} ${scope} LINKER:--wrap=${name})
        list(APPEND wrapped ${name})
    endforeach()
    if(target MATCHES "_test$")
        add_dependencies(${target} focus_core main_under_test)
        add_custom_command(TARGET ${target} POST_BUILD COMMAND ${CMAKE_COMMAND}
            -D NM=${CMAKE_NM} -D "WRAPPED=${wrapped}"
            -D "PRODUCT=$<TARGET_FILE:focus_core>;$<TARGET_OBJECTS:main_under_test>"
            -P ${PROJECT_SOURCE_DIR}/cmake/check_wraps.cmake VERBATIM)
    endif()
endfunction()
