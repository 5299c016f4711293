# Shortens the sleep between redraws for tests that need many of them.
add_library(e2e_fast_sleep SHARED fast_sleep.cpp)
target_link_libraries(e2e_fast_sleep PRIVATE focus_base) # no sanitizer: loaded before its runtime

add_executable(e2e_overlay_test
    fault_test.cpp overlay.cpp overlay_test.cpp picture_test.cpp readout.cpp
    ../support/difference.cpp ../support/reference.cpp)
target_include_directories(e2e_overlay_test PRIVATE
    ../support ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(e2e_overlay_test PRIVATE
    focus_options simcam_core Freetype::Freetype GTest::gtest_main)
target_compile_definitions(e2e_overlay_test PRIVATE
    FOCUS_ASSIST="$<TARGET_FILE:focus_assist>"
    FAST_SLEEP="$<TARGET_FILE_NAME:e2e_fast_sleep>"
    FAST_SLEEP_FOLDER="$<TARGET_FILE_DIR:e2e_fast_sleep>")
add_dependencies(e2e_overlay_test focus_assist e2e_fast_sleep)
gtest_discover_tests(e2e_overlay_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 180 LABELS e2e)
