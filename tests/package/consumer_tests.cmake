# Tests of every way to get at the libraries: the project in tests/consumer/ is built in each of them,
# with each compiler. A compiler or tool that is not there fails its tests.
set(here ${CMAKE_CURRENT_SOURCE_DIR})
set(places ${CMAKE_CURRENT_BINARY_DIR}/places)
set(consumers ${CMAKE_CURRENT_BINARY_DIR}/consumers)

# A test for whose sake others run first, and which the same tests then need to have passed.
function(nq_prepares_for name fixture)
    set_tests_properties(Package.${name} PROPERTIES FIXTURES_SETUP ${fixture})
endfunction()

nq_add_package_test(
    installs ${here}/prepare_places.sh ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR} ${places}
    ${CMAKE_COMMAND})
nq_prepares_for(installs placesToBuildFrom)

# nq_add_consumer_test(NAME COMPILER WAY PLACE [cmake options...])
function(nq_add_consumer_test name compiler way place)
    nq_add_package_test(
        ${name}.${compiler} ${here}/check_cmake_consumer.sh ${way} ${place}
        ${consumers}/${name}.${compiler} ${CMAKE_COMMAND} -G ${CMAKE_GENERATOR}
        -DCMAKE_CXX_COMPILER=${compiler} ${ARGN})
    set_tests_properties(
        Package.${name}.${compiler} PROPERTIES FIXTURES_REQUIRED placesToBuildFrom)
    nq_is_slow(Package.${name}.${compiler} 2)
endfunction()

# Libraries with sanitizers in them load only into programs that are built the same way.
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    get_filename_component(compiler ${CMAKE_CXX_COMPILER} NAME)
    set(options -DCMAKE_CXX_FLAGS=${CMAKE_CXX_FLAGS})
    nq_add_consumer_test(moved ${compiler} find_package ${places}/moved ${options})
    nq_add_consumer_test(
        addSubdirectory ${compiler} add_subdirectory ${PROJECT_SOURCE_DIR} ${options})
    return()
endif()

set(debian ${CMAKE_CURRENT_BINARY_DIR}/debian)
set(debianTools dpkg-dev file lintian)
nq_add_package_test(
    debianPackages ${here}/check_debian_packages.sh ${PROJECT_SOURCE_DIR} ${debian})
nq_prepares_for(debianPackages debianRoot)
nq_is_slow(Package.debianPackages 15)
nq_needs(Package.debianPackages ${debianTools})
# Stands for the loader's own folders, where the packages put the libraries on a real system.
set(debianLoader LD_LIBRARY_PATH=${debian}/root/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})

# nq_add_pkg_config_test(NAME COMPILER PREFIX)
function(nq_add_pkg_config_test name compiler prefix)
    nq_add_package_test(
        ${name}.${compiler} ${here}/check_pkg_config_consumer.sh ${prefix}
        ${consumers}/${name}.${compiler} ${compiler})
    set_tests_properties(
        Package.${name}.${compiler} PROPERTIES FIXTURES_REQUIRED placesToBuildFrom)
    nq_is_slow(Package.${name}.${compiler} 2)
    nq_needs(Package.${name}.${compiler} pkg-config)
endfunction()

foreach(compiler g++ clang++)
    nq_add_consumer_test(installed ${compiler} find_package ${places}/installed)
    nq_add_consumer_test(moved ${compiler} find_package ${places}/moved)
    nq_add_pkg_config_test(installedByPkgConfig ${compiler} ${places}/installed)
    nq_add_pkg_config_test(movedByPkgConfig ${compiler} ${places}/moved)

    nq_add_consumer_test(debian ${compiler} find_package ${debian}/root/usr)
    nq_add_pkg_config_test(debianByPkgConfig ${compiler} ${debian}/root/usr)
    set_tests_properties(
        Package.debian.${compiler} Package.debianByPkgConfig.${compiler}
        PROPERTIES FIXTURES_REQUIRED debianRoot ENVIRONMENT ${debianLoader})
    nq_needs(Package.debian.${compiler} ${debianTools})
    nq_needs(Package.debianByPkgConfig.${compiler} ${debianTools})

    nq_add_consumer_test(
        addSubdirectory ${compiler} add_subdirectory ${PROJECT_SOURCE_DIR})
    nq_prepares_for(addSubdirectory.${compiler} librariesOfBothCompilers)
    nq_add_consumer_test(
        fetchContent ${compiler} FetchContent ${places}/nqSchedulerAPI-3.0.0.tar.gz)
    # These build the libraries, and take every core for it.
    set_tests_properties(
        Package.addSubdirectory.${compiler} Package.fetchContent.${compiler}
        PROPERTIES PROCESSORS 2 COST 10)
endforeach()
foreach(
    name
    installed
    moved
    installedByPkgConfig
    movedByPkgConfig
    debian
    debianByPkgConfig
    addSubdirectory
    fetchContent)
    nq_needs(Package.${name}.clang++ clang)
endforeach()
set_tests_properties(Package.debianPackages PROPERTIES PROCESSORS 2)

nq_add_package_test(
    compilersMix ${here}/check_mixed_compilers.sh ${consumers}/addSubdirectory.g++/build
    ${consumers}/addSubdirectory.clang++/build)
set_tests_properties(Package.compilersMix PROPERTIES FIXTURES_REQUIRED librariesOfBothCompilers)
nq_is_slow(Package.compilersMix 1)
nq_needs(Package.compilersMix clang)
