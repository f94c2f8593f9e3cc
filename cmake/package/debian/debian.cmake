# Debian packages, made by `scripts/package`: one for each library, with the library's SONAME in its
# name, so that programs of an older and a newer one can live on one machine; one for those who build
# programs; and one for each command.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL nqSystem nqSchedulerAPI nqPool nqDevelopment)
if(TARGET nqrun)
    list(APPEND CPACK_COMPONENTS_ALL nqrun)
endif()
if(TARGET nqCluster)
    list(APPEND CPACK_COMPONENTS_ALL nqCluster nqAgent)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
# The project has no public address; who publishes packages puts a real one here and in the changelog.
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "nqSchedulerAPI maintainers <maintainers@nqschedulerapi.invalid>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# What a library needs, and what a package with a program needs that was linked to it.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/system/linux
                                                ${PROJECT_BINARY_DIR}/cmake/library
                                                ${PROJECT_BINARY_DIR}/pool
                                                ${PROJECT_BINARY_DIR}/cluster)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/debian/ldconfig_trigger.cmake)

set(soVersion ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
get_target_property(poolSoVersion nqPool SOVERSION)
set(sameVersion "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(schedulerLibraries
    "libnqschedulerapi${soVersion} ${sameVersion}, libnqsystem${soVersion} ${sameVersion}")

set(CPACK_DEBIAN_NQSYSTEM_PACKAGE_NAME libnqsystem${soVersion})
set(CPACK_DEBIAN_NQSYSTEM_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_NQSYSTEM_DESCRIPTION
    "platform library of nqSchedulerAPI
Pipes, child processes, logging and timers, which the library of
libnqschedulerapi${soVersion} stands on. Hosts link to it when they install a
logger of their own.")

set(CPACK_DEBIAN_NQSCHEDULERAPI_PACKAGE_NAME libnqschedulerapi${soVersion})
set(CPACK_DEBIAN_NQSCHEDULERAPI_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_NQSCHEDULERAPI_PACKAGE_DEPENDS "libnqsystem${soVersion} ${sameVersion}")
set(CPACK_COMPONENT_NQSCHEDULERAPI_DESCRIPTION
    "runs jobs in a pool of supervised worker processes
A host program pushes jobs, calls one function from its own loop, and pops
results and failures. A worker process that crashes, hangs or uses too much
memory costs the one job that it holds, and is replaced.")

set(CPACK_DEBIAN_NQPOOL_PACKAGE_NAME libnqpool${poolSoVersion})
set(CPACK_DEBIAN_NQPOOL_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_NQPOOL_PACKAGE_DEPENDS "${schedulerLibraries}")
set(CPACK_COMPONENT_NQPOOL_DESCRIPTION
    "runs jobs in worker processes, each to exactly one outcome
Identities, callbacks and futures, retries, limits for each job and bounded
queues on top of libnqschedulerapi${soVersion}. A program may be its own worker.")

set(developmentLibraries "${schedulerLibraries}, libnqpool${poolSoVersion} ${sameVersion}")
if(TARGET nqCluster)
    get_target_property(clusterSoVersion nqCluster SOVERSION)
    string(APPEND developmentLibraries ", libnqcluster${clusterSoVersion} ${sameVersion}")
    set(poolLibraries "${schedulerLibraries}, libnqpool${poolSoVersion} ${sameVersion}")

    set(CPACK_DEBIAN_NQCLUSTER_PACKAGE_NAME libnqcluster${clusterSoVersion})
    set(CPACK_DEBIAN_NQCLUSTER_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_NQCLUSTER_PACKAGE_DEPENDS "${poolLibraries}")
    set(CPACK_COMPONENT_NQCLUSTER_DESCRIPTION
        "runs jobs in worker processes of several machines
The pool of libnqpool${poolSoVersion} with a queue in Redis between the program that has
jobs and the machines that run nq-agent.")

    set(CPACK_DEBIAN_NQAGENT_PACKAGE_NAME nq-agent)
    set(CPACK_DEBIAN_NQAGENT_PACKAGE_SECTION net)
    set(CPACK_DEBIAN_NQAGENT_PACKAGE_DEPENDS "${poolLibraries}")
    set(CPACK_COMPONENT_NQAGENT_DESCRIPTION
        "serves a queue of jobs in Redis with worker processes
Takes jobs that programs with libnqcluster${clusterSoVersion} have put there, runs them in
worker processes on this machine, and puts their outcomes back.")
endif()

set(CPACK_DEBIAN_NQDEVELOPMENT_PACKAGE_NAME libnqschedulerapi-dev)
set(CPACK_DEBIAN_NQDEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_NQDEVELOPMENT_PACKAGE_DEPENDS "${developmentLibraries}")
set(CPACK_COMPONENT_NQDEVELOPMENT_DESCRIPTION
    "runs jobs in a pool of supervised worker processes (development files)
Headers, and what CMake, pkg-config and the linker need to build hosts and
workers with nqSchedulerAPI and nqPool.")

# It finds the libraries that it needs by itself; only their packages of this version are tested with it.
set(CPACK_DEBIAN_NQRUN_PACKAGE_NAME nqrun)
set(CPACK_DEBIAN_NQRUN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_NQRUN_PACKAGE_DEPENDS "libnqpool${poolSoVersion} ${sameVersion}")
if(TARGET nqCluster)
    string(APPEND CPACK_DEBIAN_NQRUN_PACKAGE_DEPENDS ", libnqcluster${clusterSoVersion} ${sameVersion}")
endif()
set(CPACK_COMPONENT_NQRUN_DESCRIPTION
    "runs a command for each item over a supervised pool
Like xargs and GNU parallel, with time-outs and memory caps that reach every
child of a command, failures that say how, and runs that can be resumed after
any interruption.")

# Every Debian package carries these, in Debian's place for them. An installation by other means does not.
execute_process(
    COMMAND gzip --best --no-name --stdout ${CMAKE_CURRENT_SOURCE_DIR}/debian/changelog
    OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} variable)
    install(
        FILES debian/copyright ${root}/NOTICE ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${variable}_PACKAGE_NAME}
        COMPONENT ${component}
        EXCLUDE_FROM_ALL)
endforeach()

if(TARGET nq-agent)
    execute_process(
        COMMAND gzip --best --no-name --stdout ${PROJECT_SOURCE_DIR}/cluster/agent/nq-agent.1
        OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/nq-agent.1.gz COMMAND_ERROR_IS_FATAL ANY)
    install(
        FILES ${CMAKE_CURRENT_BINARY_DIR}/nq-agent.1.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT nqAgent
        EXCLUDE_FROM_ALL)
endif()

include(CPack)
