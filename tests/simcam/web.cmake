add_executable(simcam_web_test
    ${CMAKE_CURRENT_LIST_DIR}/fake_camera.cpp
    ${CMAKE_CURRENT_LIST_DIR}/routes_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/frames_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/web_test.cpp)
target_link_libraries(simcam_web_test PRIVATE
    simcam_web focus_options GTest::gmock GTest::gtest_main Threads::Threads)
target_precompile_headers(simcam_web_test REUSE_FROM test_files)
gtest_discover_tests(simcam_web_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
