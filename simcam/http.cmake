# The web interface: HTTP, JSON, pictures, and the page built into the library.
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
pkg_check_modules(microhttpd REQUIRED IMPORTED_TARGET libmicrohttpd)

set(page_files index.html style.css app.js focus.js ring.js picture.js plots.js panels.js icon.svg)
list(TRANSFORM page_files PREPEND "${CMAKE_CURRENT_SOURCE_DIR}/page/" OUTPUT_VARIABLE page_paths)
string(REPLACE ";" "," page_names "${page_files}")
add_custom_command(OUTPUT page.cpp
    COMMAND ${CMAKE_COMMAND} -DPAGE=${CMAKE_CURRENT_SOURCE_DIR}/page -DFILES=${page_names}
            -DOUTPUT=${CMAKE_CURRENT_BINARY_DIR}/page.cpp
            -P ${CMAKE_CURRENT_SOURCE_DIR}/http_page.cmake
    DEPENDS ${page_paths} ${CMAKE_CURRENT_SOURCE_DIR}/http_page.cmake
    COMMENT "Building the page into the program"
    VERBATIM)

add_library(simcam_http STATIC
    http.cpp http_answer.cpp http_json.cpp http_picture.cpp http_route.cpp http_stream.cpp http_table.cpp
    ${CMAKE_CURRENT_BINARY_DIR}/page.cpp)
target_include_directories(simcam_http PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(simcam_http
    PUBLIC simcam_optics
    PRIVATE focus_options PkgConfig::microhttpd nlohmann_json::nlohmann_json Threads::Threads)
target_precompile_headers(simcam_http REUSE_FROM simcam_optics)
