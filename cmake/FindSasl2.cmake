# Finds Cyrus SASL, the authentication of Kerberos; defines the target Sasl2::sasl2.

find_path(Sasl2_INCLUDE_DIR sasl/sasl.h)
find_library(Sasl2_LIBRARY sasl2)

if(Sasl2_INCLUDE_DIR AND EXISTS "${Sasl2_INCLUDE_DIR}/sasl/sasl.h")
    file(STRINGS "${Sasl2_INCLUDE_DIR}/sasl/sasl.h" Sasl2_VERSION
         REGEX "^#define[ \t]+SASL_VERSION_(MAJOR|MINOR|STEP)[ \t]+[0-9]+")
    string(REGEX REPLACE "#define[ \t]+SASL_VERSION_[A-Z]+[ \t]+([0-9]+)" "\\1" Sasl2_VERSION "${Sasl2_VERSION}")
    string(REPLACE ";" "." Sasl2_VERSION "${Sasl2_VERSION}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Sasl2
    REQUIRED_VARS Sasl2_LIBRARY Sasl2_INCLUDE_DIR
    VERSION_VAR Sasl2_VERSION)

if(Sasl2_FOUND AND NOT TARGET Sasl2::sasl2)
    add_library(Sasl2::sasl2 UNKNOWN IMPORTED)
    set_target_properties(Sasl2::sasl2 PROPERTIES
        IMPORTED_LOCATION "${Sasl2_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${Sasl2_INCLUDE_DIR}")
endif()
mark_as_advanced(Sasl2_INCLUDE_DIR Sasl2_LIBRARY)
