# Builds the end-to-end tests of this machine: cmake -D SOURCE=... -P host_build.cmake

unset(ENV{CXXFLAGS}) # the flags of the calling build are for another processor
execute_process(COMMAND ${CMAKE_COMMAND} --preset host
    WORKING_DIRECTORY ${SOURCE} COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} --build --preset host
    --target e2e_overlay_test platform_preload_test simcam simcam_system focus_assist
    WORKING_DIRECTORY ${SOURCE} COMMAND_ERROR_IS_FATAL ANY)
