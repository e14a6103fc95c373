# The platform library as the target `xrcommon`: from KVSNMP_XRCOMMON_ROOT (include/xrcommon, lib) if set, otherwise
# built from the stand-in. Users of the target see no difference.

set(xrcommon_rooms platform/xrcommon/framing)
if(NOT KVSNMP_XRCOMMON_ROOT)
    list(APPEND xrcommon_rooms platform/xrcommon)
    return()
endif()

# Search again after a change of the root.
unset(XRCOMMON_INCLUDE_DIR CACHE)
unset(XRCOMMON_LIBRARY CACHE)
find_path(XRCOMMON_INCLUDE_DIR xrcommon/TalInterface.h
    PATHS ${KVSNMP_XRCOMMON_ROOT}/include NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
find_library(XRCOMMON_LIBRARY xrcommon
    PATHS ${KVSNMP_XRCOMMON_ROOT}/lib NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(NOT XRCOMMON_INCLUDE_DIR OR NOT XRCOMMON_LIBRARY)
    message(FATAL_ERROR "KVSNMP_XRCOMMON_ROOT: ${KVSNMP_XRCOMMON_ROOT} has no "
        "include/xrcommon/TalInterface.h or no lib/libxrcommon.*")
endif()
add_library(xrcommon UNKNOWN IMPORTED GLOBAL)
set_target_properties(xrcommon PROPERTIES
    IMPORTED_LOCATION ${XRCOMMON_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${XRCOMMON_INCLUDE_DIR}
    INTERFACE_LINK_LIBRARIES Qt5::Core)
