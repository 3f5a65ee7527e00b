# Finds c-ares, a resolver that does not block; defines the target Cares::cares.

find_path(Cares_INCLUDE_DIR ares.h)
find_library(Cares_LIBRARY cares)

if(Cares_INCLUDE_DIR AND EXISTS "${Cares_INCLUDE_DIR}/ares_version.h")
    file(STRINGS "${Cares_INCLUDE_DIR}/ares_version.h" Cares_VERSION_LINES
         REGEX "^#define[ \t]+ARES_VERSION_(MAJOR|MINOR|PATCH)[ \t]+[0-9]+")
    string(REGEX REPLACE "[^0-9;]+" "" Cares_VERSION "${Cares_VERSION_LINES}")
    string(REPLACE ";" "." Cares_VERSION "${Cares_VERSION}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Cares
    REQUIRED_VARS Cares_LIBRARY Cares_INCLUDE_DIR
    VERSION_VAR Cares_VERSION)

if(Cares_FOUND AND NOT TARGET Cares::cares)
    add_library(Cares::cares UNKNOWN IMPORTED)
    set_target_properties(Cares::cares PROPERTIES
        IMPORTED_LOCATION "${Cares_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${Cares_INCLUDE_DIR}")
endif()
mark_as_advanced(Cares_INCLUDE_DIR Cares_LIBRARY)
