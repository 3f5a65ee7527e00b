# Reads which symbols a library exports. Run with -D NM=... -D LIBRARY=...
#
# All that the library itself defines is in namespace Solvane, and nothing of that belongs to its
# private headers. Weak symbols of std and boost are instances of their templates, which those
# libraries mark as visible themselves.

execute_process(COMMAND "${NM}" --dynamic --defined-only --demangle "${LIBRARY}"
    OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "[" "(" listing "${listing}") # a list in CMake does not end inside brackets
string(REPLACE "]" ")" listing "${listing}")
string(REPLACE ";" ":" listing "${listing}")
string(REPLACE "\n" ";" listing "${listing}")

set(of "((construction )?vtable for |VTT for |typeinfo (name )?for |guard variable for )?")
set(thunk "(virtual thunk to |non-virtual thunk to )?")
set(private "SessionGuard|ThrowSite|TraceSite|Solvane::openldapError\\(|Solvane::fault\\(|anonymous")
set(count 0)
set(strays "")
foreach(line IN LISTS listing)
    if(NOT line MATCHES "^[0-9a-f]+ ([A-Za-z]) (.*)$")
        continue()
    endif()
    set(kind "${CMAKE_MATCH_1}")
    set(symbol "${CMAKE_MATCH_2}")
    math(EXPR count "${count} + 1")
    if(symbol MATCHES "${private}")
        list(APPEND strays "${symbol}")
    elseif(symbol MATCHES "^${thunk}${of}Solvane::" OR
           (kind MATCHES "^[VWu]$" AND symbol MATCHES "(std|boost)::"))
        continue()
    else()
        list(APPEND strays "${symbol}")
    endif()
endforeach()

if(count LESS 100)
    message(FATAL_ERROR "${LIBRARY} exports only ${count} symbols")
endif()
if(strays)
    list(JOIN strays "\n  " strays)
    message(FATAL_ERROR "${LIBRARY} exports what is not its interface:\n  ${strays}")
endif()
