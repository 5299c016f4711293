# Selects the components of each package. cpack reads this once for each generator.

set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
if(CPACK_GENERATOR STREQUAL "DEB")
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_COMPONENTS_ALL Unspecified systemd license debian)

    # The libraries that the executable needs, in the versions whose symbols it uses.
    list(GET CPACK_INSTALL_CMAKE_PROJECTS 0 build)
    file(STRINGS ${build}/focus_assist symbols REGEX "^GLIBC_[0-9.]+$")
    set(newest 2.4)
    foreach(symbol ${symbols})
        string(REPLACE GLIBC_ "" version ${symbol})
        if(version VERSION_GREATER newest)
            set(newest ${version})
        endif()
    endforeach()
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= ${newest}), libfreetype6 (>= 2.3.0)")
    if(CPACK_DEBIAN_PACKAGE_ARCHITECTURE MATCHES "^arm") # divisions
        string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", libgcc-s1 (>= 3.5)")
    endif()
else()
    set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
    set(CPACK_COMPONENTS_ALL Unspecified busybox license)
endif()
