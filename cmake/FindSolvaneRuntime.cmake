# Finds the product's runtime below the prefix in SOLVANE_RUNTIME; makes the target Solvane::runtime.
#
# The prefix has the headers as include/solvart/*.h and the library, shared, as
# lib/libsolvart.so or as the product's own libsolvart++, libsolvaparser and liblwipc.

find_path(SolvaneRuntime_INCLUDE_DIR solvart/Exception.h
    HINTS "${SOLVANE_RUNTIME}" PATH_SUFFIXES include NO_DEFAULT_PATH)
find_library(SolvaneRuntime_LIBRARY NAMES solvart solvart++
    HINTS "${SOLVANE_RUNTIME}" PATH_SUFFIXES lib lib/${CMAKE_LIBRARY_ARCHITECTURE} lib64
    NO_DEFAULT_PATH)
foreach(name solvaparser lwipc) # only where the runtime is split
    find_library(SolvaneRuntime_${name}_LIBRARY ${name}
        HINTS "${SOLVANE_RUNTIME}" PATH_SUFFIXES lib lib/${CMAKE_LIBRARY_ARCHITECTURE} lib64
        NO_DEFAULT_PATH)
    mark_as_advanced(SolvaneRuntime_${name}_LIBRARY)
endforeach()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(SolvaneRuntime
    REQUIRED_VARS SolvaneRuntime_LIBRARY SolvaneRuntime_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "SOLVANE_RUNTIME must be a prefix that has include/solvart and lib/libsolvart.so")

if(SolvaneRuntime_FOUND AND NOT TARGET Solvane::runtime)
    add_library(Solvane::runtime UNKNOWN IMPORTED)
    set_target_properties(Solvane::runtime PROPERTIES
        IMPORTED_LOCATION "${SolvaneRuntime_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${SolvaneRuntime_INCLUDE_DIR}"
        INTERFACE_COMPILE_FEATURES cxx_std_17)
    foreach(name solvaparser lwipc)
        if(SolvaneRuntime_${name}_LIBRARY)
            set_property(TARGET Solvane::runtime APPEND PROPERTY
                INTERFACE_LINK_LIBRARIES "${SolvaneRuntime_${name}_LIBRARY}")
        endif()
    endforeach()
endif()
mark_as_advanced(SolvaneRuntime_INCLUDE_DIR SolvaneRuntime_LIBRARY)
