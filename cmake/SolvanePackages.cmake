# solvane_find_package(NAME VERSION DEBIAN_PACKAGES SWITCH [COMPONENTS NAME...]): find_package for a
# required package. If it is missing, the message names the Debian packages to install, and the option
# SWITCH ("" for none) that builds without it. One run reports everything that is missing.
macro(solvane_find_package name version debian_packages switch)
    find_package(${name} ${version} QUIET ${ARGN})
    if(NOT ${name}_FOUND)
        solvane_report_missing("${name} ${version}" "${debian_packages}" "${switch}"
            "${${name}_VERSION}" ${ARGN})
    endif()
endmacro()

function(solvane_report_missing wanted debian_packages switch found)
    set(message "${wanted} or later is missing")
    if(found)
        string(APPEND message " (found: ${found})")
    endif()
    if(ARGN)
        list(JOIN ARGN " " components)
        string(APPEND message ", ${components}")
    endif()
    string(APPEND message ".\nOn Debian: apt-get install ${debian_packages}")
    if(switch)
        string(APPEND message "\nTo leave out what needs it: -D${switch}=OFF")
    endif()
    message(SEND_ERROR "${message}")
endfunction()
