# CppHttplib::CppHttplib: an HTTP client (Debian: libcpp-httplib-dev), for the programs in bench/.
find_package(OpenSSL QUIET)
find_path(CPP_HTTPLIB_INCLUDE_DIR httplib.h)
find_library(CPP_HTTPLIB_LIBRARY cpp-httplib)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(CppHttplib DEFAULT_MSG CPP_HTTPLIB_LIBRARY CPP_HTTPLIB_INCLUDE_DIR OPENSSL_FOUND)
mark_as_advanced(CPP_HTTPLIB_INCLUDE_DIR CPP_HTTPLIB_LIBRARY)
if(CppHttplib_FOUND AND NOT TARGET CppHttplib::CppHttplib)
  add_library(CppHttplib::CppHttplib UNKNOWN IMPORTED)
  # Debian builds it with these; its classes have other members without.
  set_target_properties(CppHttplib::CppHttplib PROPERTIES
    IMPORTED_LOCATION "${CPP_HTTPLIB_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${CPP_HTTPLIB_INCLUDE_DIR}"
    INTERFACE_COMPILE_DEFINITIONS "CPPHTTPLIB_OPENSSL_SUPPORT;CPPHTTPLIB_ZLIB_SUPPORT;CPPHTTPLIB_BROTLI_SUPPORT"
    INTERFACE_LINK_LIBRARIES "OpenSSL::SSL;OpenSSL::Crypto")
endif()
