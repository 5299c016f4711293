# Tests in Python on the real camera with the real overlay: over HTTP, and of the page in a real browser.
find_program(E2E_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH) # has the distribution's modules
find_program(E2E_PYTHON NAMES python3)
find_program(E2E_CHROMIUM NAMES chromium)
find_program(E2E_CHROMEDRIVER NAMES chromedriver)
if(NOT E2E_PYTHON)
    message(STATUS "tests: no python3, the page is not tested in a browser")
    return()
endif()
set(e2e_programs --simcam $<TARGET_FILE:simcam> --overlay $<TARGET_FILE:focus_assist>)

set(http_except)
if(FOCUS_SANITIZE) # a sanitizer keeps freed memory
    set(http_except Memory)
endif()
python_test(e2e_http ${CMAKE_CURRENT_LIST_DIR}/http_test.py
    COMMAND ${E2E_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/http_test.py ${e2e_programs}
    EXCEPT ${http_except}
    PROPERTIES LABELS e2e TIMEOUT 300 COST 30)

# An entry for each class of page_test.py: the start of a browser takes as long as two tests.
file(STRINGS page_test.py page_classes REGEX "^class [A-Za-z]+\\(Page\\):")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS page_test.py)
foreach(line IN LISTS page_classes)
    string(REGEX MATCH "[A-Z][A-Za-z]+" class "${line}")
    add_test(NAME e2e_page.${class}
        COMMAND ${E2E_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/page_test.py ${class} ${e2e_programs}
                --browser ${E2E_CHROMIUM} --driver ${E2E_CHROMEDRIVER}
                --pictures ${CMAKE_CURRENT_BINARY_DIR}/page)
    set_tests_properties(e2e_page.${class} PROPERTIES
        LABELS e2e
        RESOURCE_LOCK browser # browser, camera and overlay take more than a core
        COST 40 # begun first: one after the other, they take longest
        TIMEOUT 300
        SKIP_RETURN_CODE 77)
endforeach()
