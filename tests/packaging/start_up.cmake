# The start-up files, with a program that replaces the overlay.

set(init_script ${PROJECT_BINARY_DIR}/packaging/busybox/S80focus_assist)
set(service_unit ${PROJECT_BINARY_DIR}/packaging/systemd/focus-assist.service)

add_executable(fake_overlay fake_overlay.cpp)
target_link_libraries(fake_overlay PRIVATE focus_tests)

foreach(scenario start_and_stop double_start start_twice_at_once stale_pid_file rubbish_pid_file
        recycled_pid killed_overlay killed_keeper killed_keeper_and_stop exit_1_and_255 back_off
        good_life_resets_back_off device_replaced slow_start
        replaced_script stubborn_overlay replaced_executable linked_path missing_executable usage)
    add_test(NAME packaging_init.${scenario} COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/init_test.sh
        ${scenario} ${init_script} $<TARGET_FILE:fake_overlay>)
endforeach()
foreach(claim verified exposure camera_files)
    add_test(NAME packaging_systemd.${claim} COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/systemd_test.sh
        ${claim} ${service_unit})
endforeach()
