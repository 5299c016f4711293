add_library(fake_camera OBJECT ${CMAKE_CURRENT_LIST_DIR}/fake_camera.cpp)
target_link_libraries(fake_camera PRIVATE simcam_web focus_tests)

test_program(simcam_web_test
    ${CMAKE_CURRENT_LIST_DIR}/routes_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/frames_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/web_test.cpp)
target_link_libraries(simcam_web_test PRIVATE fake_camera simcam_web GTest::gmock Threads::Threads)
