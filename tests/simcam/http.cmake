add_executable(simcam_http_test
    ${CMAKE_CURRENT_LIST_DIR}/fake_camera.cpp
    ${CMAKE_CURRENT_LIST_DIR}/http_route_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/http_picture_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/http_test.cpp)
target_link_libraries(simcam_http_test PRIVATE
    simcam_http focus_options GTest::gmock GTest::gtest_main Threads::Threads)
gtest_discover_tests(simcam_http_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
