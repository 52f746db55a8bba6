# SOCI comes without a CMake package in Debian. Defines SOCI::sqlite3.
find_path(SOCI_INCLUDE_DIR soci/soci.h)
find_library(SOCI_CORE_LIBRARY soci_core)
find_library(SOCI_SQLITE3_LIBRARY soci_sqlite3)
find_path(SQLITE3_INCLUDE_DIR sqlite3.h)
# SOCI's headers include it, but its package does not depend on it.
find_path(SOCI_BOOST_INCLUDE_DIR boost/fusion/algorithm/iteration/for_each.hpp)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(SOCI DEFAULT_MSG SOCI_INCLUDE_DIR SOCI_CORE_LIBRARY SOCI_SQLITE3_LIBRARY SQLITE3_INCLUDE_DIR
    SOCI_BOOST_INCLUDE_DIR)
if(SOCI_FOUND AND NOT TARGET SOCI::sqlite3)
  add_library(SOCI::sqlite3 INTERFACE IMPORTED)
  target_include_directories(SOCI::sqlite3 INTERFACE ${SOCI_INCLUDE_DIR} ${SQLITE3_INCLUDE_DIR})
  target_link_libraries(SOCI::sqlite3 INTERFACE ${SOCI_SQLITE3_LIBRARY} ${SOCI_CORE_LIBRARY})
  # It hides the type information that this check of the sanitizer would refer to.
  target_compile_options(SOCI::sqlite3 INTERFACE -fno-sanitize=vptr)
endif()
