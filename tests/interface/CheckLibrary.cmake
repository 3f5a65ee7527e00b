# Reads a library: with -D READELF=..., what the loader is told about it; with -D NM=... and
# -D OTHERS=..., which symbols it exports, where OTHERS is a pattern of what may be there besides. Both
# need -D LIBRARY=...

if(NOT DEFINED READELF AND NOT DEFINED NM)
    message(FATAL_ERROR "Needs READELF or NM")
endif()

# Programs ask for a library by its major version, and its calls can be taken over by a program.
if(DEFINED READELF)
    execute_process(COMMAND "${READELF}" --dynamic --wide "${LIBRARY}"
        OUTPUT_VARIABLE section COMMAND_ERROR_IS_FATAL ANY)
    if(NOT section MATCHES "soname: \\[libsolvane-ldap\\.so\\.1\\]")
        message(FATAL_ERROR "The soname is not libsolvane-ldap.so.1:\n${section}")
    endif()
    if(section MATCHES "SYMBOLIC")
        message(FATAL_ERROR "The library binds its calls to itself:\n${section}")
    endif()
endif()

# All that leaves is in namespace Solvane, and nothing of that belongs to the private headers: no
# instance of a template of the C++ library or of Boost, which those mark as visible themselves. The
# names are read as the linker has them; a readable one may begin with a return type.
if(DEFINED NM)
    execute_process(COMMAND "${NM}" --dynamic --defined-only "${LIBRARY}"
        OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
    string(REPLACE "\n" ";" listing "${listing}")

    set(private "9ThrowSite|9TraceSite|11SocketGuard|14currentProcess|_ZN7Solvane(13openldapError|5fault)E|_GLOBAL__N_")
    set(count 0)
    set(strays "")
    foreach(line IN LISTS listing)
        # Behind "@" is the linker's version.
        if(NOT line MATCHES "^[0-9a-f]+ [A-Za-z] ([^@]+)")
            continue()
        endif()
        set(symbol "${CMAKE_MATCH_1}")
        if(symbol MATCHES "^SOLVANE_[A-Z]+_[0-9]+$") # the version; some linkers list it, too
            continue()
        endif()
        math(EXPR count "${count} + 1")
        if(symbol MATCHES "${private}" OR
           NOT symbol MATCHES "^_Z(T[ISTV]|Tv[0-9n_]+)?NK?7Solvane|^(${OTHERS})")
            list(APPEND strays "${symbol}")
        endif()
    endforeach()

    if(count LESS 50)
        message(FATAL_ERROR "${LIBRARY} exports only ${count} symbols")
    endif()
    if(strays)
        list(JOIN strays "\n  " strays)
        message(FATAL_ERROR "${LIBRARY} exports what is not its interface (c++filt reads it):\n  ${strays}")
    endif()
endif()
