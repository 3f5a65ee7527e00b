# How this repository's own targets are compiled. Link solvane_build_options privately; tests link
# solvane_test_options. Tests do without UndefinedBehaviorSanitizer, which is for the product: they would take
# half as long again to compile.

add_library(solvane_test_options INTERFACE)
target_compile_options(solvane_test_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wold-style-cast
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wformat=2 -Wundef -Wimplicit-fallthrough
    $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local -Wduplicated-cond -Wlogical-op -Wuseless-cast>
    $<$<CXX_COMPILER_ID:Clang>:-Wunused-const-variable>
    $<$<BOOL:${SOLVANE_WARNINGS_AS_ERRORS}>:-Werror>
)
add_library(solvane_build_options INTERFACE)
target_link_libraries(solvane_build_options INTERFACE solvane_test_options)
string(REPLACE "," ";" sanitizers "${SOLVANE_SANITIZE}")
foreach(sanitizer IN LISTS sanitizers)
    if(sanitizer STREQUAL undefined)
        target_compile_options(solvane_build_options INTERFACE -fsanitize=undefined)
    else()
        target_compile_options(solvane_test_options INTERFACE -fsanitize=${sanitizer})
    endif()
    target_link_options(solvane_test_options INTERFACE -fsanitize=${sanitizer})
endforeach()
if(sanitizers)
    target_compile_options(solvane_test_options INTERFACE
        -fno-omit-frame-pointer -fno-sanitize-recover=all)
    # The loader would relocate megabytes of the sanitizers' tables at each start, a fifth of its time.
    target_link_options(solvane_test_options INTERFACE
        $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-no-pie>)
endif()
if(SOLVANE_FUZZ)
    target_compile_options(solvane_build_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(SOLVANE_COVERAGE)
    target_link_options(solvane_test_options INTERFACE --coverage)
endif()

# solvane_count_lines(TARGET): counts the executed lines of a library, with SOLVANE_COVERAGE.
function(solvane_count_lines target)
    if(SOLVANE_COVERAGE)
        target_compile_options(${target} PRIVATE --coverage)
    endif()
endfunction()

# solvane_optimise_library(LIBRARY OBJECTS...): with SOLVANE_LTO, the units of the shared library are optimised
# together, and its functions call each other directly; those of other libraries are called through the dynamic
# linker, as ever. A call spends much of its time on code that the processor has to fetch: there is less of it.
# Programs of tests link the same objects as they are.
function(solvane_optimise_library library)
    if(NOT SOLVANE_LTO OR NOT CMAKE_CXX_COMPILER_ID STREQUAL GNU OR SOLVANE_SANITIZE
       OR NOT CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel|None)$")
        return()
    endif()
    foreach(objects IN LISTS ARGN)
        target_compile_options(${objects} PRIVATE
            -flto=auto -ffat-lto-objects -fno-semantic-interposition)
    endforeach()
    target_link_options(${library} PRIVATE -flto=auto)
    # gdb takes a vtable for that of no class if it finds the second, local name that g++ 14 gives it.
    add_custom_command(TARGET ${library} POST_BUILD VERBATIM
        COMMAND "${CMAKE_OBJCOPY}" --wildcard --strip-symbol=*.localalias* "$<TARGET_FILE:${library}>")
endfunction()

# solvane_export_interface(TARGET NODE [PATTERN...]): makes the shared library export only its interface:
# namespace Solvane and symbols that match a pattern. NODE is the symbols' version, or empty for none
# (docs/abi.md).
function(solvane_export_interface target node)
    set(others "")
    foreach(pattern IN LISTS ARGN)
        string(APPEND others "${pattern}; ")
    endforeach()
    set(map "${CMAKE_CURRENT_BINARY_DIR}/${target}.map")
    configure_file("${PROJECT_SOURCE_DIR}/cmake/exports.map.in" "${map}" @ONLY)
    target_link_options(${target} PRIVATE "LINKER:--version-script=${map}")
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${map}")
endfunction()
