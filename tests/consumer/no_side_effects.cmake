# A library that is built within another project leaves that project's settings, targets and tests
# alone.
set(settings
    BUILD_SHARED_LIBS
    BUILD_TESTING
    CMAKE_ARCHIVE_OUTPUT_DIRECTORY
    CMAKE_BUILD_TYPE
    CMAKE_CXX_EXTENSIONS
    CMAKE_CXX_FLAGS
    CMAKE_CXX_STANDARD
    CMAKE_CXX_VISIBILITY_PRESET
    CMAKE_EXE_LINKER_FLAGS
    CMAKE_INSTALL_PREFIX
    CMAKE_INSTALL_RPATH
    CMAKE_LIBRARY_OUTPUT_DIRECTORY
    CMAKE_MODULE_PATH
    CMAKE_POSITION_INDEPENDENT_CODE
    CMAKE_PREFIX_PATH
    CMAKE_RUNTIME_OUTPUT_DIRECTORY
    CMAKE_SHARED_LINKER_FLAGS
    CMAKE_SKIP_INSTALL_RPATH
    CPACK_GENERATOR)
set(directorySettings
    BUILDSYSTEM_TARGETS
    COMPILE_DEFINITIONS
    COMPILE_OPTIONS
    INCLUDE_DIRECTORIES
    LINK_DIRECTORIES
    LINK_LIBRARIES
    LINK_OPTIONS
    TESTS)

macro(remember_settings)
    foreach(setting IN LISTS settings)
        set(${setting}_before "${${setting}}")
        set(${setting}_cached_before "$CACHE{${setting}}")
    endforeach()
    foreach(setting IN LISTS directorySettings)
        get_property(${setting}_before DIRECTORY PROPERTY ${setting})
    endforeach()
endmacro()

# Every target that is defined in a folder or below.
function(collect_targets folder result)
    get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
    get_property(below DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
    foreach(next IN LISTS below)
        collect_targets(${next} found)
        list(APPEND targets ${found})
    endforeach()
    set(${result} ${targets} PARENT_SCOPE)
endfunction()

function(expect what found expected)
    if(NOT "${found}" STREQUAL "${expected}")
        message(FATAL_ERROR "${what}: '${found}' instead of '${expected}'")
    endif()
endfunction()

function(expect_no_side_effects)
    foreach(setting IN LISTS settings)
        expect(${setting} "${${setting}}" "${${setting}_before}")
        expect("cached ${setting}" "$CACHE{${setting}}" "${${setting}_cached_before}")
    endforeach()
    foreach(setting IN LISTS directorySettings)
        get_property(now DIRECTORY PROPERTY ${setting})
        expect("${setting} of the folder" "${now}" "${${setting}_before}")
    endforeach()

    collect_targets(${CMAKE_CURRENT_SOURCE_DIR} targets)
    list(SORT targets)
    set(expected nqCompileOptions nqHardening nqPool nqPoolObjects nqPoolPlatformObjects
                 nqSchedulerAPI nqSchedulerObjects nqSourceTree nqSystem nqSystemObjects)
    expect("targets" "${targets}" "${expected}")

    foreach(library nqSchedulerAPI nqSystem)
        get_target_property(type ${library} TYPE)
        expect("type of ${library}" ${type} SHARED_LIBRARY)
        # Besides its headers, a library passes on nothing but the language that these need.
        foreach(what COMPILE_DEFINITIONS COMPILE_OPTIONS LINK_DIRECTORIES LINK_LIBRARIES
                     LINK_OPTIONS SOURCES)
            get_property(passed TARGET ${library} PROPERTY INTERFACE_${what})
            expect("${what} passed on by ${library}" "${passed}" "")
        endforeach()
        get_property(passed TARGET ${library} PROPERTY INTERFACE_COMPILE_FEATURES)
        expect("features passed on by ${library}" "${passed}" cxx_std_17)
    endforeach()
endfunction()
