# Installation: libraries, headers, CMake package and pkg-config files, by component: 'runtime' has the
# stand-in's library, 'library' the shared libraries, 'development' the development files. The tool's
# folder installs 'tool', cmake/packaging 'documentation'. 'runtime-development' is the complete
# stand-in: a prefix for SOLVANE_RUNTIME.

include(CMakePackageConfigHelpers)
set(SOLVANE_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/SolvaneLDAP")

if(NOT SOLVANE_RUNTIME STREQUAL "bundled")
    # Programs must not find the headers of the stand-in from an earlier installation.
    install(CODE "set(includedir \"${CMAKE_INSTALL_INCLUDEDIR}\")"
        CODE "set(runtime \"${SolvaneRuntime_INCLUDE_DIR}/solvart\")"
        CODE [[
            set(there "${CMAKE_INSTALL_PREFIX}/${includedir}/solvart")
            if("$ENV{DESTDIR}" STREQUAL "" AND EXISTS "${there}")
                file(REAL_PATH "${there}" there)
                file(REAL_PATH "${runtime}" runtime)
                if(NOT there STREQUAL runtime)
                    message(FATAL_ERROR "${there} has the headers of another runtime than "
                        "${runtime}. Remove it, or install into another prefix.")
                endif()
            endif()]]
        COMPONENT development)
endif()

install(TARGETS solvane_ldap solvane_lookup EXPORT SolvaneLDAPTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            COMPONENT library NAMELINK_COMPONENT development)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/solvane"
    "${PROJECT_SOURCE_DIR}/session/include/solvane" "${PROJECT_SOURCE_DIR}/lookup/include/solvane"
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
if(SOLVANE_RUNTIME STREQUAL "bundled")
    install(TARGETS solvane_runtime EXPORT SolvaneLDAPTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
                COMPONENT runtime NAMELINK_COMPONENT development)
    install(DIRECTORY "${PROJECT_SOURCE_DIR}/runtime/include/solvart"
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
    install(TARGETS solvane_runtime
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime-development EXCLUDE_FROM_ALL)
    install(DIRECTORY "${PROJECT_SOURCE_DIR}/runtime/include/solvart"
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT runtime-development EXCLUDE_FROM_ALL)
else()
    install(FILES "${PROJECT_SOURCE_DIR}/cmake/FindSolvaneRuntime.cmake"
        DESTINATION ${SOLVANE_CMAKE_DIR} COMPONENT development)
endif()

# solvane_install_rpath(LIBDIR TARGET...): sets the RUNPATH of installed targets: LIBDIR, relative to the
# target, and the folder of an outside runtime unless it is a system folder. CMAKE_INSTALL_RPATH
# replaces both; CMAKE_SKIP_INSTALL_RPATH omits both, as Debian's packages require.
function(solvane_install_rpath libdir)
    if(DEFINED CMAKE_INSTALL_RPATH)
        return() # the targets use it already
    endif()
    set(folders "${libdir}")
    if(SolvaneRuntime_LIBRARY_DIR
       AND NOT SolvaneRuntime_LIBRARY_DIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
        list(APPEND folders "${SolvaneRuntime_LIBRARY_DIR}")
    endif()
    set_target_properties(${ARGN} PROPERTIES INSTALL_RPATH "${folders}")
endfunction()
solvane_install_rpath("\$ORIGIN" solvane_ldap solvane_lookup)

install(EXPORT SolvaneLDAPTargets NAMESPACE Solvane:: DESTINATION ${SOLVANE_CMAKE_DIR}
    COMPONENT development)
configure_package_config_file(
    "${PROJECT_SOURCE_DIR}/cmake/SolvaneLDAPConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/SolvaneLDAPConfig.cmake"
    INSTALL_DESTINATION ${SOLVANE_CMAKE_DIR})
write_basic_package_version_file(
    "${PROJECT_BINARY_DIR}/SolvaneLDAPConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
# Relative, so that the file is correct in every prefix, even if it is moved.
file(RELATIVE_PATH SOLVANE_PREFIX_FROM_PKGCONFIG "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
if(SOLVANE_RUNTIME STREQUAL "bundled")
    set(SOLVANE_RUNTIME_INCLUDEDIR "\${includedir}")
    set(SOLVANE_RUNTIME_LIBDIR "\${libdir}")
    set(SOLVANE_RUNTIME_LIBS "-lsolvart")
else()
    # A blank would end the path.
    string(REPLACE " " "\\ " SOLVANE_RUNTIME_INCLUDEDIR "${SolvaneRuntime_INCLUDE_DIR}")
    string(REPLACE " " "\\ " SOLVANE_RUNTIME_LIBDIR "${SolvaneRuntime_LIBRARY_DIR}")
    list(TRANSFORM SolvaneRuntime_LIBRARIES REPLACE "^.*/lib(.+)\\.so$" "-l\\1"
        OUTPUT_VARIABLE SOLVANE_RUNTIME_LIBS)
    list(JOIN SOLVANE_RUNTIME_LIBS " " SOLVANE_RUNTIME_LIBS)
endif()
foreach(name solvane-ldap solvane-lookup)
    configure_file("${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in" "${PROJECT_BINARY_DIR}/${name}.pc" @ONLY)
endforeach()
install(FILES
    "${PROJECT_BINARY_DIR}/SolvaneLDAPConfig.cmake"
    "${PROJECT_BINARY_DIR}/SolvaneLDAPConfigVersion.cmake"
    DESTINATION ${SOLVANE_CMAKE_DIR} COMPONENT development)
install(FILES "${PROJECT_BINARY_DIR}/solvane-ldap.pc" "${PROJECT_BINARY_DIR}/solvane-lookup.pc"
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# gdb's pretty printers. gdb finds them automatically only below /usr, by the full name of the library.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    install(FILES "${PROJECT_SOURCE_DIR}/support/gdb/solvane.py"
        DESTINATION ${CMAKE_INSTALL_DATADIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR}
        RENAME libsolvane-ldap.so.${PROJECT_VERSION}-gdb.py COMPONENT development)
else()
    install(FILES "${PROJECT_SOURCE_DIR}/support/gdb/solvane.py"
        DESTINATION ${CMAKE_INSTALL_DATADIR}/solvane-ldap RENAME gdb.py COMPONENT development)
endif()
