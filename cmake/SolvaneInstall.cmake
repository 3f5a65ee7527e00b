# Installation: libraries, headers, CMake package and pkg-config files, by components: 'runtime' for
# the stand-in's library, 'library' for what programs run with, 'development' for what they are
# built with. The tool's folder installs 'tool', cmake/packaging 'documentation'.

include(CMakePackageConfigHelpers)
set(SOLVANE_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/SolvaneLDAP")

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
    set(SOLVANE_RUNTIME_CFLAGS "")
    set(SOLVANE_RUNTIME_LIBS "-lsolvart")
else()
    install(FILES "${PROJECT_SOURCE_DIR}/cmake/FindSolvaneRuntime.cmake"
        DESTINATION ${SOLVANE_CMAKE_DIR} COMPONENT development)
    set(SOLVANE_RUNTIME_CFLAGS "-I${SolvaneRuntime_INCLUDE_DIR}")
    set(SOLVANE_RUNTIME_LIBS "${SolvaneRuntime_LIBRARY}")
endif()

install(EXPORT SolvaneLDAPTargets NAMESPACE Solvane:: DESTINATION ${SOLVANE_CMAKE_DIR}
    COMPONENT development)
configure_package_config_file(
    "${PROJECT_SOURCE_DIR}/cmake/SolvaneLDAPConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/SolvaneLDAPConfig.cmake"
    INSTALL_DESTINATION ${SOLVANE_CMAKE_DIR})
write_basic_package_version_file(
    "${PROJECT_BINARY_DIR}/SolvaneLDAPConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
# Relative, so that the file is right under whatever prefix it is installed or moved to.
file(RELATIVE_PATH SOLVANE_PREFIX_FROM_PKGCONFIG "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
foreach(name solvane-ldap solvane-lookup)
    configure_file("${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in" "${PROJECT_BINARY_DIR}/${name}.pc" @ONLY)
endforeach()
install(FILES
    "${PROJECT_BINARY_DIR}/SolvaneLDAPConfig.cmake"
    "${PROJECT_BINARY_DIR}/SolvaneLDAPConfigVersion.cmake"
    DESTINATION ${SOLVANE_CMAKE_DIR} COMPONENT development)
install(FILES "${PROJECT_BINARY_DIR}/solvane-ldap.pc" "${PROJECT_BINARY_DIR}/solvane-lookup.pc"
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# What gdb prints for the library's objects. By itself gdb looks for it below /usr alone, by the
# whole name of the library.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    install(FILES "${PROJECT_SOURCE_DIR}/support/gdb/solvane.py"
        DESTINATION ${CMAKE_INSTALL_DATADIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR}
        RENAME libsolvane-ldap.so.${PROJECT_VERSION}-gdb.py COMPONENT development)
else()
    install(FILES "${PROJECT_SOURCE_DIR}/support/gdb/solvane.py"
        DESTINATION ${CMAKE_INSTALL_DATADIR}/solvane-ldap RENAME gdb.py COMPONENT development)
endif()
