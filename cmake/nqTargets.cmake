# Compile options that every target of this project shares. A target asks for them; nothing is set
# for whole directories.
add_library(nqCompileOptions INTERFACE)
target_compile_features(nqCompileOptions INTERFACE cxx_std_17)
target_compile_options(
    nqCompileOptions
    INTERFACE -Wall -Wextra -Wconversion -Wshadow $<$<BOOL:${NQ_WARNINGS_AS_ERRORS}>:-Werror>)

# What makes a mistake in a shared library harder to exploit. Fortified calls of the C library need the
# optimiser, which finds the sizes to check against, and sanitizers check the same calls themselves.
# Control-flow marks (-fcf-protection) are left out: neither the kernels nor the C library of the
# supported systems act on them.
add_library(nqHardening INTERFACE)
target_compile_options(nqHardening INTERFACE -fstack-protector-strong -fstack-clash-protection)
if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
    # Some compilers come with a level of their own, which has to go first.
    target_compile_options(
        nqHardening INTERFACE $<${optimised}:-U_FORTIFY_SOURCE> $<${optimised}:-D_FORTIFY_SOURCE=2>)
endif()

# The repository's root, from which internal files include each other by folder and file name, and the
# public headers, one of which those of the platform include.
add_library(nqSourceTree INTERFACE)
target_include_directories(
    nqSourceTree INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)

# For objects that end up in a shared library, and show nothing of themselves that is not declared to
# be public. Calls go straight to their target: everything is bound when the library is loaded, and no
# program replaces a library's own functions one by one.
function(nq_hide_symbols target)
    target_compile_options(${target} PRIVATE -fno-plt -fno-semantic-interposition)
    set_target_properties(
        ${target} PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden
                             VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# File name, SONAME and memory protection of a library that is shipped. EXPORTS names its linker map,
# which keeps symbols of the C++ standard library's templates and private nested types out of the
# interface. The first two numbers of VERSION are that interface's number.
function(nq_ship_library target exports version)
    string(REGEX MATCH "^[0-9]+\\.[0-9]+" soVersion ${version})
    set_target_properties(
        ${target}
        PROPERTIES LINKER_LANGUAGE CXX
                   VERSION ${soVersion}
                   SOVERSION ${soVersion}
                   LINK_DEPENDS ${exports})
    target_link_options(${target} PRIVATE -Wl,--version-script=${exports})
    # Everything is resolved when the library is loaded, and the tables are read-only from then on.
    target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
    # Some compilers leave a sanitizer's own symbols to the program that loads the library.
    if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
        target_link_options(${target} PRIVATE -Wl,--no-undefined)
    endif()
endfunction()
