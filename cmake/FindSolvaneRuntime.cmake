# Finds the product's runtime below the prefix in SOLVANE_RUNTIME; makes the target Solvane::runtime.
#
# The prefix has the headers as include/solvart/*.h and the library, shared, as lib/libsolvart.so or
# as the product's libsolvart++.so with libsolvaparser.so and liblwipc.so in the same folder. Sets
#   SolvaneRuntime_INCLUDE_DIR  the folder of solvart/
#   SolvaneRuntime_LIBRARIES    the library files
#   SolvaneRuntime_LIBRARY_DIR  their folder

# Ignore the result of an earlier run: the prefix or its contents may have changed.
foreach(name INCLUDE_DIR LIBRARY solvaparser_LIBRARY lwipc_LIBRARY)
    unset(SolvaneRuntime_${name})
    unset(SolvaneRuntime_${name} CACHE)
endforeach()
set(SolvaneRuntime_LIBRARIES "")

if(IS_ABSOLUTE "${SOLVANE_RUNTIME}")
    set(SolvaneRuntime_REASON "no include/solvart/Exception.h with lib/libsolvart.so or \
lib/libsolvart++.so below SOLVANE_RUNTIME, which is ${SOLVANE_RUNTIME}")
    find_path(SolvaneRuntime_INCLUDE_DIR solvart/Exception.h
        HINTS "${SOLVANE_RUNTIME}" PATH_SUFFIXES include NO_DEFAULT_PATH)
    find_library(SolvaneRuntime_LIBRARY NAMES libsolvart.so libsolvart++.so
        HINTS "${SOLVANE_RUNTIME}" PATH_SUFFIXES lib lib/${CMAKE_LIBRARY_ARCHITECTURE} lib64
        NO_DEFAULT_PATH)
else()
    set(SolvaneRuntime_REASON "SOLVANE_RUNTIME must be 'bundled' or the absolute path of a prefix, \
not '${SOLVANE_RUNTIME}'")
endif()

if(SolvaneRuntime_LIBRARY)
    set(SolvaneRuntime_LIBRARIES "${SolvaneRuntime_LIBRARY}")
    get_filename_component(SolvaneRuntime_LIBRARY_DIR "${SolvaneRuntime_LIBRARY}" DIRECTORY)
    foreach(name solvaparser lwipc) # only where the runtime is split
        find_library(SolvaneRuntime_${name}_LIBRARY lib${name}.so
            HINTS "${SolvaneRuntime_LIBRARY_DIR}" NO_DEFAULT_PATH)
        if(SolvaneRuntime_${name}_LIBRARY)
            list(APPEND SolvaneRuntime_LIBRARIES "${SolvaneRuntime_${name}_LIBRARY}")
        endif()
    endforeach()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(SolvaneRuntime
    REQUIRED_VARS SolvaneRuntime_LIBRARIES SolvaneRuntime_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "${SolvaneRuntime_REASON}")

if(SolvaneRuntime_FOUND AND NOT TARGET Solvane::runtime)
    add_library(Solvane::runtime INTERFACE IMPORTED)
    set_target_properties(Solvane::runtime PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${SolvaneRuntime_INCLUDE_DIR}"
        INTERFACE_LINK_LIBRARIES "${SolvaneRuntime_LIBRARIES}"
        INTERFACE_COMPILE_FEATURES cxx_std_17)
endif()
mark_as_advanced(SolvaneRuntime_INCLUDE_DIR SolvaneRuntime_LIBRARY SolvaneRuntime_solvaparser_LIBRARY
    SolvaneRuntime_lwipc_LIBRARY)
