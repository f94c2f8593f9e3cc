# Says in one line what this system, processor or C library lacks, before a compiler says it in many.
include(CheckCXXSourceCompiles)

# Before the first language is enabled: a compiler for another system may not even pass CMake's test.
function(nq_require_system)
    if(NOT CMAKE_SYSTEM_NAME STREQUAL "Linux")
        message(FATAL_ERROR "${PROJECT_NAME} runs on Linux only, not on ${CMAKE_SYSTEM_NAME}.")
    endif()
endfunction()

# What the compiler builds for counts, which options such as -m32 change.
function(nq_require_compiler)
    nq_require("a compiler for x86-64 or aarch64" NQ_KNOWS_PROCESSOR
               "(defined(__x86_64__) || defined(__aarch64__)) && defined(__LP64__)")
    nq_require("glibc 2.34 or later" NQ_HAS_GLIBC_2_34 "defined(__GLIBC__) && __GLIBC_PREREQ(2, 34)")
endfunction()

# nq_require(WHAT RESULT CONDITION): CONDITION is the preprocessor's, and RESULT remembers that it holds.
function(nq_require what result condition)
    set(CMAKE_REQUIRED_QUIET ON)
    check_cxx_source_compiles("
#if defined(__has_include)
#if __has_include(<features.h>)
#include <features.h>
#endif
#endif
#if !(${condition})
#error
#endif
int main() { return 0; }" ${result})
    if(NOT ${result})
        unset(${result} CACHE) # other options may be given next time
        message(FATAL_ERROR "${PROJECT_NAME} needs ${what}.")
    endif()
endfunction()
