# Shortens the sleep between redraws for tests that need many of them.
add_library(e2e_fast_sleep SHARED fast_sleep.cpp)
target_link_libraries(e2e_fast_sleep PRIVATE focus_base) # no sanitizer: loaded before its runtime

# Another codec library: that of the benchmarks with three functions of its own.
set(null_codec ${PROJECT_SOURCE_DIR}/bench/null_codec.cpp)
set_source_files_properties(${null_codec} PROPERTIES COMPILE_DEFINITIONS
    "qm7_cl_post_notify_callback=null_notify_callback;qm7_cl_post_set_notify=null_set_notify;\
qm7_cl_post_set_osd=null_set_osd")
add_library(e2e_other_codec SHARED other_codec.cpp ${null_codec})
target_include_directories(e2e_other_codec PRIVATE
    ${PROJECT_SOURCE_DIR}/bench ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(e2e_other_codec PRIVATE focus_tests)
set_target_properties(e2e_other_codec PROPERTIES
    OUTPUT_NAME qm7codec VERSION 2.0 SOVERSION 2.0
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/other_codec)

test_program(e2e_overlay_test
    fault_test.cpp overlay.cpp overlay_test.cpp picture_test.cpp readout.cpp
    ../support/difference.cpp ../support/reference.cpp TIMEOUT 180 LABELS e2e)
target_include_directories(e2e_overlay_test PRIVATE
    ../support ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(e2e_overlay_test PRIVATE
    simcam_core Freetype::Freetype)
target_compile_definitions(e2e_overlay_test PRIVATE
    FAULT_TESTS="${CMAKE_CURRENT_LIST_DIR}/fault_test.cpp"
    FOCUS_ASSIST="$<TARGET_FILE:focus_assist>"
    FAST_SLEEP="$<TARGET_FILE_NAME:e2e_fast_sleep>"
    FAST_SLEEP_FOLDER="$<TARGET_FILE_DIR:e2e_fast_sleep>"
    OTHER_CODEC_FOLDER="$<TARGET_FILE_DIR:e2e_other_codec>")
add_dependencies(e2e_overlay_test focus_assist e2e_fast_sleep e2e_other_codec)
