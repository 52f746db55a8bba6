# Finds systemd's library, which ships no CMake package: Systemd_FOUND, target Systemd::systemd.
find_path(SYSTEMD_INCLUDE_DIR systemd/sd-daemon.h)
find_library(SYSTEMD_LIBRARY systemd)
mark_as_advanced(SYSTEMD_INCLUDE_DIR SYSTEMD_LIBRARY)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Systemd REQUIRED_VARS SYSTEMD_LIBRARY SYSTEMD_INCLUDE_DIR)
if(Systemd_FOUND AND NOT TARGET Systemd::systemd)
  add_library(Systemd::systemd UNKNOWN IMPORTED)
  set_target_properties(Systemd::systemd PROPERTIES
    IMPORTED_LOCATION ${SYSTEMD_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${SYSTEMD_INCLUDE_DIR})
endif()
