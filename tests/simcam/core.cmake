# The camera without its pictures: requests, board, socket server, processes.
test_program(simcam_core_test ${CMAKE_CURRENT_LIST_DIR}/request_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/board_test.cpp ${CMAKE_CURRENT_LIST_DIR}/server_test.cpp)
target_include_directories(simcam_core_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
target_link_libraries(simcam_core_test PRIVATE simcam_link)

test_program(simcam_camera_test ${CMAKE_CURRENT_LIST_DIR}/camera_test.cpp)
target_include_directories(simcam_camera_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
target_link_libraries(simcam_camera_test PRIVATE simcam_core)

test_program(simcam_main_test ${CMAKE_CURRENT_LIST_DIR}/main_test.cpp LABELS e2e)
target_include_directories(simcam_main_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
target_link_libraries(simcam_main_test PRIVATE simcam_picture)
target_compile_definitions(simcam_main_test PRIVATE
    SIMCAM="$<TARGET_FILE:simcam>"
    FOCUS_ASSIST="$<TARGET_FILE:focus_assist>")
add_dependencies(simcam_main_test simcam focus_assist)

find_program(SIMCAM_PYTHON NAMES python3)
if(SIMCAM_PYTHON)
    set(file ${CMAKE_CURRENT_LIST_DIR}/options_test.py)
    python_test(simcam_options ${file}
        COMMAND ${SIMCAM_PYTHON} ${file}
                --simcam $<TARGET_FILE:simcam> --docs ${PROJECT_SOURCE_DIR}/docs/simcam.md
        PROPERTIES LABELS e2e TIMEOUT 240)
else()
    message(STATUS "tests: no python3, the options and their table are not tested")
endif()
