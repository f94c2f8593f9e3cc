# What is not there must not be found: another major version, or a newer minor one.
foreach(version 2.9 3.1 4.0)
    find_package(nqSchedulerAPI ${version} QUIET)
    if(nqSchedulerAPI_FOUND)
        message(FATAL_ERROR "Version ${nqSchedulerAPI_VERSION} passed itself off as ${version}.")
    endif()
    unset(nqSchedulerAPI_DIR CACHE)
endforeach()
