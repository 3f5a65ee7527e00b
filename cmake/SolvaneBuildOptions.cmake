# How this repository's own targets are compiled. Link solvane_build_options privately.

add_library(solvane_build_options INTERFACE)
target_compile_options(solvane_build_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wold-style-cast
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wformat=2 -Wundef -Wimplicit-fallthrough
    $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local -Wduplicated-cond -Wlogical-op -Wuseless-cast>
    $<$<CXX_COMPILER_ID:Clang>:-Wunused-const-variable>
    $<$<BOOL:${SOLVANE_WARNINGS_AS_ERRORS}>:-Werror>
)
if(SOLVANE_SANITIZE)
    target_compile_options(solvane_build_options INTERFACE
        -fsanitize=${SOLVANE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(solvane_build_options INTERFACE -fsanitize=${SOLVANE_SANITIZE})
endif()
if(SOLVANE_FUZZ)
    target_compile_options(solvane_build_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(SOLVANE_COVERAGE)
    target_compile_options(solvane_build_options INTERFACE --coverage)
    target_link_options(solvane_build_options INTERFACE --coverage)
endif()
