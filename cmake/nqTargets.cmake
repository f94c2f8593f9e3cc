# Compile options that every target of this project shares. A target asks for them; nothing is set
# for whole directories.
add_library(nqCompileOptions INTERFACE)
target_compile_features(nqCompileOptions INTERFACE cxx_std_17)
target_compile_options(
    nqCompileOptions
    INTERFACE -Wall -Wextra -Wconversion -Wshadow $<$<BOOL:${NQ_WARNINGS_AS_ERRORS}>:-Werror>)

# The repository's root, from which internal files include each other by folder and file name.
add_library(nqSourceTree INTERFACE)
target_include_directories(nqSourceTree INTERFACE ${PROJECT_SOURCE_DIR})

# For objects that end up in a shared library, and show nothing of themselves that is not declared to
# be public.
function(nq_hide_symbols target)
    set_target_properties(
        ${target} PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden
                             VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# File name and SONAME of a library that is shipped. EXPORTS names its linker map, which keeps symbols
# of the C++ standard library's templates and private nested types out of the interface.
function(nq_ship_library target exports)
    set_target_properties(
        ${target}
        PROPERTIES LINKER_LANGUAGE CXX
                   VERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
                   SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
                   LINK_DEPENDS ${exports})
    target_link_options(${target} PRIVATE -Wl,--version-script=${exports})
    # Some compilers leave a sanitizer's own symbols to the program that loads the library.
    if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
        target_link_options(${target} PRIVATE -Wl,--no-undefined)
    endif()
endfunction()
