# Finds GNU libmicrohttpd, which ships no CMake package: MicroHttpd_FOUND, target MicroHttpd::MicroHttpd.
find_path(MICROHTTPD_INCLUDE_DIR microhttpd.h)
find_library(MICROHTTPD_LIBRARY microhttpd)
mark_as_advanced(MICROHTTPD_INCLUDE_DIR MICROHTTPD_LIBRARY)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(MicroHttpd REQUIRED_VARS MICROHTTPD_LIBRARY MICROHTTPD_INCLUDE_DIR)
if(MicroHttpd_FOUND AND NOT TARGET MicroHttpd::MicroHttpd)
  add_library(MicroHttpd::MicroHttpd UNKNOWN IMPORTED)
  set_target_properties(MicroHttpd::MicroHttpd PROPERTIES
    IMPORTED_LOCATION ${MICROHTTPD_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${MICROHTTPD_INCLUDE_DIR})
endif()
