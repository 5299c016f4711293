# The picture side of the simulated camera: scenes, lens, sensor, measurement, compositor.

# Debian's package files for find_package(OpenCV) come with all of its modules and what they need in
# turn; the few modules used here are found by themselves.
find_path(OPENCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
foreach(module core imgproc imgcodecs)
    find_library(OPENCV_${module} opencv_${module} REQUIRED)
    list(APPEND opencv_libraries ${OPENCV_${module}})
endforeach()
find_library(OPENCV_videoio opencv_videoio)

add_library(simcam_optics STATIC optics.cpp scene.cpp chart.cpp compose.cpp)
target_include_directories(simcam_optics PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_include_directories(simcam_optics SYSTEM PUBLIC ${OPENCV_INCLUDE_DIR})
target_link_libraries(simcam_optics PUBLIC ${opencv_libraries} PRIVATE focus_options)
if(OPENCV_videoio)
    target_link_libraries(simcam_optics PRIVATE ${OPENCV_videoio})
    set_source_files_properties(scene.cpp PROPERTIES COMPILE_DEFINITIONS SIMCAM_VIDEO=1)
else()
    message(STATUS "simcam: no opencv_videoio, scenes can be pictures but not videos")
    set_source_files_properties(scene.cpp PROPERTIES COMPILE_DEFINITIONS SIMCAM_VIDEO=0)
endif()

# Read once for all of the camera: the picture library's headers take longer than what follows them.
# No other macros may be set for what uses it, so those of one file are set for that file.
target_precompile_headers(simcam_optics PRIVATE
    <opencv2/core.hpp> <opencv2/imgproc.hpp> <filesystem> <functional> <map> <string> <vector>)
# What runs for every picture is fast in the build of ./run too, which otherwise trades speed for time to
# compile; headers read before belong to one level of optimisation.
set_source_files_properties(optics.cpp compose.cpp PROPERTIES
    COMPILE_OPTIONS $<$<CONFIG:Release>:-O3> SKIP_PRECOMPILE_HEADERS ON)
