# The whole emulated camera, with the ARM program of this build and simcam of preset host.
if(NOT CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
    return() # Debian's libraries in the guest are of this kind
endif()

find_program(SYSTEM_PYTHON NAMES python3 NO_CMAKE_FIND_ROOT_PATH REQUIRED)
set(system_image ${PROJECT_BINARY_DIR}/system-image)
set(system_package ${PROJECT_BINARY_DIR}/system-package)
add_test(NAME system.server COMMAND ${CMAKE_COMMAND} --build ${PROJECT_BINARY_DIR}
    --target camera_server camera_device_test)
add_test(NAME system.package COMMAND ${CMAKE_CPACK_COMMAND} -G DEB -B ${system_package}
    -D CPACK_PACKAGE_FILE_NAME=focus-assist --config ${PROJECT_BINARY_DIR}/CPackConfig.cmake)
add_test(NAME system.image COMMAND ${PROJECT_SOURCE_DIR}/scripts/system-image
    ${system_image} ${PROJECT_BINARY_DIR} ${system_package}/focus-assist.deb)
set_tests_properties(system.image PROPERTIES DEPENDS "system.server;system.package")
set_tests_properties(system.server system.package system.image PROPERTIES
    FIXTURES_SETUP system_image TIMEOUT 600 LABELS system)
foreach(class BusyBox Systemd Units Speed)
    string(TOLOWER ${class} name)
    add_test(NAME system.${name} COMMAND ${SYSTEM_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/system_test.py
        --runner ${host_build}/bin/simcam-system --simcam ${host_build}/bin/simcam
        --overlay ${host_build}/focus_assist --image ${system_image} --build ${PROJECT_BINARY_DIR}
        --log ${CMAKE_CURRENT_BINARY_DIR}/system_test.log ${class})
    set_tests_properties(system.${name} PROPERTIES
        FIXTURES_REQUIRED "simulated_camera;system_image" TIMEOUT 3000 LABELS system RUN_SERIAL ON
        SKIP_RETURN_CODE 77)
endforeach()
