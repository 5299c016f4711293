# Runs after a package was made: rewrites the outer archive of a .deb without the times and modes of
# temporary files.

foreach(package ${CPACK_PACKAGE_FILES})
    if(NOT package MATCHES "\\.deb$")
        continue()
    endif()
    set(folder ${package}.parts)
    file(MAKE_DIRECTORY ${folder})
    execute_process(COMMAND ar x ${package} WORKING_DIRECTORY ${folder} COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE ${package})
    execute_process(COMMAND ar rcD ${package} debian-binary control.tar.gz data.tar.gz
        WORKING_DIRECTORY ${folder} COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE ${folder})
endforeach()
