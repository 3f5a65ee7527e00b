# Reads what the loader is told about a library. Run with -D READELF=... -D LIBRARY=...
#
# Programs ask for it by its major version, and its calls can be taken over by a program.

execute_process(COMMAND "${READELF}" --dynamic --wide "${LIBRARY}"
    OUTPUT_VARIABLE section COMMAND_ERROR_IS_FATAL ANY)
if(NOT section MATCHES "soname: \\[libsolvane-ldap\\.so\\.1\\]")
    message(FATAL_ERROR "The soname is not libsolvane-ldap.so.1:\n${section}")
endif()
if(section MATCHES "SYMBOLIC")
    message(FATAL_ERROR "The library binds its calls to itself:\n${section}")
endif()
