# Finds the core of prometheus-cpp, whose own CMake package asks for more: PrometheusCpp_FOUND, target PrometheusCpp::core.
find_path(PROMETHEUS_CPP_INCLUDE_DIR prometheus/registry.h)
find_library(PROMETHEUS_CPP_LIBRARY prometheus-cpp-core)
mark_as_advanced(PROMETHEUS_CPP_INCLUDE_DIR PROMETHEUS_CPP_LIBRARY)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(PrometheusCpp REQUIRED_VARS PROMETHEUS_CPP_LIBRARY PROMETHEUS_CPP_INCLUDE_DIR)
if(PrometheusCpp_FOUND AND NOT TARGET PrometheusCpp::core)
  add_library(PrometheusCpp::core UNKNOWN IMPORTED)
  set_target_properties(PrometheusCpp::core PROPERTIES
    IMPORTED_LOCATION ${PROMETHEUS_CPP_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${PROMETHEUS_CPP_INCLUDE_DIR})
endif()
