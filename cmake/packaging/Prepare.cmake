# Prepares the contents of Debian packages; cpack runs this between installing and packing: compresses
# manuals and changelogs, strips binaries, separates debug information, and writes dependencies and, for
# libraries, symbols and shlibs. Fails if a library's symbols differ from its symbols file.

# run(OUTPUT COMMAND...): runs the command; if it fails, cpack fails.
function(run output)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C ${ARGN}
        WORKING_DIRECTORY "${work}" OUTPUT_VARIABLE text OUTPUT_STRIP_TRAILING_WHITESPACE
        ERROR_VARIABLE errors RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${ARGN}:\n${text}\n${errors}")
    endif()
    set(${output} "${text}" PARENT_SCOPE)
endfunction()

# Writes symbols and shlibs of the libraries in a staged package.
function(describe_libraries component package)
    set(staged "${CPACK_TEMPORARY_DIRECTORY}/${component}")
    file(GLOB libraries "${staged}/usr/${CPACK_SOLVANE_LIBDIR}/*.so.*.*")
    set(control "${CPACK_SOLVANE_CONTROL_DIR}/${component}")
    set(shlibs "")
    foreach(library IN LISTS libraries)
        run(dynamic readelf --dynamic --wide "${library}")
        if(NOT dynamic MATCHES "soname: \\[(lib[^]]+)\\.so\\.([0-9]+)\\]")
            message(FATAL_ERROR "${library} has no name to be found by:\n${dynamic}")
        endif()
        string(APPEND shlibs
            "${CMAKE_MATCH_1} ${CMAKE_MATCH_2} ${package} (>= ${CPACK_PACKAGE_VERSION})\n")
    endforeach()
    file(WRITE "${control}/shlibs" "${shlibs}")
    file(WRITE "${control}/triggers" "activate-noawait ldconfig\n")

    # -c2: removed symbols are errors, and so are new ones until scripts/package --update accepts them.
    list(TRANSFORM libraries PREPEND "-e")
    run(ignored dpkg-gensymbols -c2 "-P${staged}" "-p${package}" "-v${version}"
        "-I${CPACK_SOLVANE_PACKAGING_DIR}/${package}.symbols" ${libraries} "-O${control}/symbols")
    file(CHMOD "${control}/shlibs" "${control}/symbols" "${control}/triggers"
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()

# Copies the debug information of libraries to the folder that gdb searches, for a separate package.
# cpack's own support would add scripts that call ldconfig, which the trigger does already.
function(keep_debug_information)
    foreach(library IN LISTS ARGN)
        run(notes readelf --notes --wide "${library}")
        if(NOT notes MATCHES "Build ID: ([0-9a-f][0-9a-f])([0-9a-f]+)")
            message(FATAL_ERROR "${library} has no build id:\n${notes}")
        endif()
        set(folder "${CPACK_TEMPORARY_DIRECTORY}/debugging/usr/lib/debug/.build-id/${CMAKE_MATCH_1}")
        set(file "${folder}/${CMAKE_MATCH_2}.debug")
        file(MAKE_DIRECTORY "${folder}")
        run(ignored objcopy --only-keep-debug "${library}" "${file}")
        file(CHMOD "${file}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    endforeach()
endfunction()

# Strips programs and libraries, and records their dependencies. cpack itself writes exact dependencies on
# libraries of these packages.
function(finish_binaries component)
    file(GLOB binaries "${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/bin/*"
        "${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/sbin/*"
        "${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/${CPACK_SOLVANE_LIBDIR}/*.so.*.*")
    if(NOT binaries)
        return()
    endif()
    if(component MATCHES "^(runtime|library)$")
        keep_debug_information(${binaries})
    endif()
    run(ignored strip --strip-unneeded --remove-section=.comment --remove-section=.note ${binaries})
    set(own "")
    foreach(name IN LISTS CPACK_COMPONENTS_ALL)
        list(APPEND own "-l${CPACK_TEMPORARY_DIRECTORY}/${name}/usr/${CPACK_SOLVANE_LIBDIR}")
    endforeach()
    list(TRANSFORM binaries PREPEND "-e")
    run(depends dpkg-shlibdeps --ignore-missing-info --warnings=0 ${own} -O ${binaries})
    string(REGEX REPLACE "^.*shlibs:Depends=" "" depends "${depends}")
    string(TOUPPER ${component} upper)
    if(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS)
        string(APPEND depends ", ${CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS}")
    endif()
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
endfunction()

file(STRINGS "${CPACK_SOLVANE_PACKAGING_DIR}/changelog" newest LIMIT_COUNT 1)
set(version "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
if(NOT newest MATCHES "^${CPACK_DEBIAN_PACKAGE_SOURCE} \\(${version}\\) ")
    message(FATAL_ERROR "cmake/packaging/changelog does not begin with version ${version}: ${newest}")
endif()

# dpkg's programs require a source package.
set(work "${CPACK_SOLVANE_CONTROL_DIR}/work")
file(WRITE "${work}/debian/control" "Source: ${CPACK_DEBIAN_PACKAGE_SOURCE}\n")

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    file(GLOB_RECURSE texts "${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/man/*.[1-8]"
        "${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/doc/*/changelog"
        "${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/doc/*/changelog.Debian")
    if(texts)
        run(ignored gzip --best --no-name --force ${texts})
    endif()
    finish_binaries(${component})
    if(component MATCHES "^(runtime|library)$")
        string(TOUPPER ${component} upper)
        describe_libraries(${component} ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    endif()
endforeach()
