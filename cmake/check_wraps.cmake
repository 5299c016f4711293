# Fails unless each function of WRAPPED is called across object files of the product: the linker
# ignores a wrapper of a name that nothing calls. cmake -D NM=... -D PRODUCT=... -D WRAPPED=... -P
execute_process(COMMAND ${NM} --undefined-only ${PRODUCT}
    OUTPUT_VARIABLE called ERROR_QUIET COMMAND_ERROR_IS_FATAL ANY)
foreach(name IN LISTS WRAPPED)
    string(REGEX MATCH " U ${name}(@[^\n]*)?\n" found "${called}")
    if(NOT found)
        message(FATAL_ERROR "--wrap=${name}: no object of the product calls this name. "
            "A C++ function has another name after a change of its signature.")
    endif()
endforeach()
