# Runs the 32-bit ARM program in an emulator on the simulated camera of this machine. The camera and
# the tests are programs of preset host, which is built first.

set(host_build ${PROJECT_BINARY_DIR}/../host)
add_test(NAME e2e_arm.simulated_camera COMMAND ${CMAKE_COMMAND}
    -D SOURCE=${PROJECT_SOURCE_DIR} -P ${CMAKE_CURRENT_LIST_DIR}/host_build.cmake)
set_tests_properties(e2e_arm.simulated_camera PROPERTIES
    FIXTURES_SETUP simulated_camera TIMEOUT 3000 LABELS e2e)

# Its path contains a space to show that such a path works.
set(sysroot "${PROJECT_BINARY_DIR}/the sysroot")
file(CREATE_LINK ${CMAKE_SYSROOT} ${sysroot} SYMBOLIC)
set(emulator qemu-arm ${emulated_cpu} -L ${sysroot})
if(FOCUS_SANITIZE) # the preload object is loaded before the sanitizer's runtime
    list(PREPEND emulator env ASAN_OPTIONS=detect_leaks=0:verify_asan_link_order=0)
endif()
string(REPLACE ";" "\t" emulator "${emulator}")

# Excludes tests that start another program or preload a library of this machine into the overlay.
foreach(suite OverlayProcess OverlayPicture OverlayFault OverlaySession OverlayToleratedCode)
    add_test(NAME e2e_arm.${suite} COMMAND ${host_build}/tests/e2e/e2e_overlay_test
        --gtest_filter=*${suite}.*-*AHundredRestarts*:*HundredsOfFrames*:*AKillWhile*:*AFailedConfiguration*:*AnotherCodecLibrary*)
    set_tests_properties(e2e_arm.${suite} PROPERTIES
        FIXTURES_REQUIRED simulated_camera TIMEOUT 600 LABELS e2e
        FAIL_REGULAR_EXPRESSION "Running 0 tests"
        ENVIRONMENT "FOCUS_TEST_PROGRAM=${emulator}\t$<TARGET_FILE:focus_assist>;\
FOCUS_TEST_PLATFORM=${PROJECT_BINARY_DIR}/platform")
endforeach()

# The preload object serves programs with 32-bit and with 64-bit file sizes and times.
foreach(bits IN ITEMS 32 64)
    set(probe platform_probe_${bits})
    add_executable(${probe} ${PROJECT_SOURCE_DIR}/tests/platform/probe.cpp)
    target_link_libraries(${probe} PRIVATE focus_tests simcam_wire qm7codec)
    target_compile_options(${probe} PRIVATE -U_FILE_OFFSET_BITS -U_TIME_BITS -DPROBE_TIME_BITS=${bits})
    if(bits EQUAL 64)
        target_compile_options(${probe} PRIVATE -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64)
    endif()
    add_test(NAME e2e_arm.preload_${bits} COMMAND ${host_build}/tests/platform/platform_preload_test
        --gtest_filter=*ReadingsAre*:*EveryOpen*:*ItsTwoRequests*:*ReadingsBefore*:*FixedPathsAre*:*FaultsOf*)
    set_tests_properties(e2e_arm.preload_${bits} PROPERTIES
        FIXTURES_REQUIRED simulated_camera TIMEOUT 300 LABELS e2e
        FAIL_REGULAR_EXPRESSION "Running 0 tests"
        ENVIRONMENT "FOCUS_TEST_PROGRAM=${emulator}\t$<TARGET_FILE:${probe}>;\
FOCUS_TEST_PLATFORM=${PROJECT_BINARY_DIR}/platform")
endforeach()
