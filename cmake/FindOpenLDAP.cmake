# Finds OpenLDAP's client libraries; defines the targets OpenLDAP::lber and OpenLDAP::ldap_r, the
# thread-safe library: libldap_r in 2.4, libldap from 2.5 on. OpenLDAP::ldap is the same, because a
# process must not load both.

find_path(OpenLDAP_INCLUDE_DIR ldap.h)
find_library(OpenLDAP_LBER_LIBRARY lber)
find_library(OpenLDAP_LDAP_R_LIBRARY NAMES ldap_r ldap)

if(OpenLDAP_INCLUDE_DIR AND EXISTS "${OpenLDAP_INCLUDE_DIR}/ldap_features.h")
    file(STRINGS "${OpenLDAP_INCLUDE_DIR}/ldap_features.h" OpenLDAP_VERSION_LINES
         REGEX "^#define[ \t]+LDAP_VENDOR_VERSION_(MAJOR|MINOR|PATCH)[ \t]+[0-9]+")
    string(REGEX REPLACE "[^0-9;]+" "" OpenLDAP_VERSION "${OpenLDAP_VERSION_LINES}")
    string(REPLACE ";" "." OpenLDAP_VERSION "${OpenLDAP_VERSION}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenLDAP
    REQUIRED_VARS OpenLDAP_LDAP_R_LIBRARY OpenLDAP_LBER_LIBRARY OpenLDAP_INCLUDE_DIR
    VERSION_VAR OpenLDAP_VERSION)

if(OpenLDAP_FOUND)
    foreach(name lber ldap_r)
        if(NOT TARGET OpenLDAP::${name})
            string(TOUPPER ${name} upper)
            add_library(OpenLDAP::${name} UNKNOWN IMPORTED)
            set_target_properties(OpenLDAP::${name} PROPERTIES
                IMPORTED_LOCATION "${OpenLDAP_${upper}_LIBRARY}"
                INTERFACE_INCLUDE_DIRECTORIES "${OpenLDAP_INCLUDE_DIR}")
        endif()
    endforeach()
    if(NOT TARGET OpenLDAP::ldap)
        add_library(OpenLDAP::ldap ALIAS OpenLDAP::ldap_r)
    endif()
endif()
mark_as_advanced(OpenLDAP_INCLUDE_DIR OpenLDAP_LBER_LIBRARY OpenLDAP_LDAP_R_LIBRARY)
