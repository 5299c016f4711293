# What goes into which package; read by cpack once a generator.

set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
if(CPACK_GENERATOR STREQUAL "DEB")
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_COMPONENTS_ALL Unspecified systemd license)
else()
    set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
    set(CPACK_COMPONENTS_ALL Unspecified busybox license)
endif()
