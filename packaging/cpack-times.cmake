# Runs before a package is made of a staged folder: gives every file the time SOURCE_DATE_EPOCH, which
# makes packages reproducible.

if(DEFINED ENV{SOURCE_DATE_EPOCH})
    execute_process(COMMAND find ${CPACK_TEMPORARY_INSTALL_DIRECTORY} -exec
        touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} + COMMAND_ERROR_IS_FATAL ANY)
endif()
