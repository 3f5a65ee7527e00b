# Debian packages, one for each component. scripts/package configures for Debian's folders and
# flags, runs cpack and checks what came out.

if(NOT PROJECT_IS_TOP_LEVEL)
    return()
endif()

set(SOLVANE_PACKAGE_MAINTAINER "Solvane LDAP maintainers <solvane-ldap@example.com>" CACHE STRING
    "Who answers for the Debian packages: a name and an address")
mark_as_advanced(SOLVANE_PACKAGE_MAINTAINER)

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${SOLVANE_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_DEBIAN_PACKAGE_SOURCE solvane-ldap)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON) # of exactly the same version
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# solvane_package(COMPONENT PACKAGE SECTION SUMMARY DESCRIPTION): the package that a component
# becomes. Its copyright and changelogs are excluded from an ordinary installation.
macro(solvane_package component package section summary description)
    string(TOUPPER ${component} _upper)
    list(APPEND CPACK_COMPONENTS_ALL ${component})
    set(CPACK_DEBIAN_${_upper}_PACKAGE_NAME ${package})
    set(CPACK_DEBIAN_${_upper}_PACKAGE_SECTION ${section})
    set(CPACK_COMPONENT_${_upper}_DESCRIPTION "${summary}\n${description}")
    set(_documents "${CMAKE_INSTALL_DATADIR}/doc/${package}")
    install(FILES "${CMAKE_CURRENT_LIST_DIR}/copyright"
        DESTINATION ${_documents} COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES "${CMAKE_CURRENT_LIST_DIR}/changelog" RENAME changelog.Debian
        DESTINATION ${_documents} COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES "${PROJECT_SOURCE_DIR}/CHANGELOG.md" RENAME changelog
        DESTINATION ${_documents} COMPONENT ${component} EXCLUDE_FROM_ALL)
    # What Prepare.cmake writes for it.
    set(_control "${PROJECT_BINARY_DIR}/packaging/${component}")
endmacro()

set(CPACK_COMPONENTS_ALL "")
solvane_package(library libsolvane-ldap${PROJECT_VERSION_MAJOR} libs
    "LDAP for mail servers: lookup engine and object interface"
"Looks mail users up in LDAP directories, for mail servers. Distinguishes
\"no such address\" (bounce) from \"lookup failed\" (defer).
.
This package has two shared libraries: the lookup engine, one call for an
address over a list of servers, and an object interface to OpenLDAP's
client library.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS
    "ca-certificates, libsasl2-modules-gssapi-mit") # trusted by default; for binds by Kerberos
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    "${_control}/shlibs;${_control}/symbols;${_control}/triggers")

if(SOLVANE_RUNTIME STREQUAL "bundled")
    # A package of its own, because the product's runtime replaces it.
    solvane_package(runtime libsolvart${PROJECT_VERSION_MAJOR} libs
        "runtime of the Solvane LDAP libraries"
"Exceptions, buffers, addresses, URIs, debug output and the operator's log
as the Solvane LDAP libraries use them.
.
This package has the shared library for systems on which the product's
own runtime is not installed.")
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
        "${_control}/shlibs;${_control}/symbols;${_control}/triggers")
    set(CPACK_COMPONENT_LIBRARY_DEPENDS runtime)
endif()

solvane_package(development libsolvane-ldap-dev libdevel
    "LDAP for mail servers: development files"
"Looks mail users up in LDAP directories, for mail servers. Distinguishes
\"no such address\" (bounce) from \"lookup failed\" (defer).
.
This package has the headers, the CMake package, the files for pkg-config
and gdb's pretty printers. The guide and example programs are in
libsolvane-ldap-doc.")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS ${CPACK_COMPONENT_LIBRARY_DEPENDS} library)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libboost-dev (>= 1.74)") # in the public headers
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "libldap-dev, libsolvane-ldap-doc")

solvane_package(debugging libsolvane-ldap${PROJECT_VERSION_MAJOR}-dbg debug
    "LDAP for mail servers: the libraries' debug information"
"Looks mail users up in LDAP directories, for mail servers. Distinguishes
\"no such address\" (bounce) from \"lookup failed\" (defer).
.
This package has the debug information of the shared libraries and their
runtime. The pretty printers for gdb are in libsolvane-ldap-dev.")
set(CPACK_COMPONENT_DEBUGGING_DEPENDS ${CPACK_COMPONENT_LIBRARY_DEPENDS} library)

if(SOLVANE_BUILD_TOOL)
    solvane_package(tool solvane-ldap net
        "looks mail addresses up in LDAP directories and says what fails"
"A command for administrators of mail servers with users in LDAP
directories. It tries query templates, looks addresses up, one or a
million, adds entries from LDIF, and checks servers step by step: name,
TLS, certificate, bind, identity, base. Exit statuses distinguish \"no
such address\" (bounce) from \"lookup failed\" (defer).")
    set(CPACK_COMPONENT_TOOL_DEPENDS ${CPACK_COMPONENT_LIBRARY_DEPENDS} library)
    set(CPACK_DEBIAN_TOOL_PACKAGE_SUGGESTS "bash-completion, libsolvane-ldap-doc")
endif()

if(SOLVANE_BUILD_SERVICE)
    solvane_package(service solvane-ldapd mail
        "answers mail servers' lookups and logins from LDAP directories"
"A service between mail servers and LDAP directories. Postfix, Sendmail and
Exim ask it for recipients and aliases by the socketmap protocol, and for
logins by Dovecot's authentication protocol. All share a bounded number of
connections, which fail over from server to server. While the directory is
down, mail is deferred and never bounced.")
    set(CPACK_COMPONENT_SERVICE_DEPENDS ${CPACK_COMPONENT_LIBRARY_DEPENDS} library)
    set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS adduser)
    set(CPACK_DEBIAN_SERVICE_PACKAGE_RECOMMENDS solvane-ldap)
    set(CPACK_DEBIAN_SERVICE_PACKAGE_SUGGESTS "postfix, libsolvane-ldap-doc")
    set(_installed "${PROJECT_SOURCE_DIR}/service/installed")
    install(FILES "${_installed}/service.conf"
        DESTINATION /etc/solvane-ldap COMPONENT service EXCLUDE_FROM_ALL)
    install(FILES "${_installed}/users.conf.example"
        DESTINATION /etc/solvane-ldap/maps COMPONENT service EXCLUDE_FROM_ALL)
    file(WRITE "${_control}/conffiles"
        "/etc/solvane-ldap/service.conf\n/etc/solvane-ldap/maps/users.conf.example\n")
    set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA "${_control}/conffiles")
    foreach(script postinst prerm postrm)
        configure_file("${CMAKE_CURRENT_LIST_DIR}/solvane-ldapd.scripts" "${_control}/${script}" COPYONLY)
        list(APPEND CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA "${_control}/${script}")
    endforeach()
endif()

solvane_package(documentation libsolvane-ldap-doc doc
    "LDAP for mail servers: guide and examples"
"Looks mail users up in LDAP directories, for mail servers. Distinguishes
\"no such address\" (bounce) from \"lookup failed\" (defer).
.
This package has the guide to the libraries and to the tool, in Markdown,
and example programs.")
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/docs/"
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libsolvane-ldap-doc
    COMPONENT documentation EXCLUDE_FROM_ALL
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN man EXCLUDE PATTERN site EXCLUDE)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/examples"
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libsolvane-ldap-doc
    COMPONENT documentation EXCLUDE_FROM_ALL
    FILES_MATCHING
    PATTERN "*.cpp" PATTERN "README.md" PATTERN "*.cfg" PATTERN "*.conf" PATTERN "*.ldif")

# What is installed is in one of the packages; runtime-development has nothing that others lack.
get_cmake_property(_components COMPONENTS)
list(REMOVE_ITEM _components ${CPACK_COMPONENTS_ALL} runtime-development)
if(_components)
    message(FATAL_ERROR "Installed, but in no package: components ${_components}")
endif()

# For Prepare.cmake, which runs between installing and packing.
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/Prepare.cmake")
set(CPACK_SOLVANE_PACKAGING_DIR "${CMAKE_CURRENT_LIST_DIR}")
set(CPACK_SOLVANE_CONTROL_DIR "${PROJECT_BINARY_DIR}/packaging")
set(CPACK_SOLVANE_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
include(CPack)
