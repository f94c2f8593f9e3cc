# Gives `source` the macro NQ_BUILD_IDENTIFIER: the first sixteen hexadecimal digits of the source
# revision, or a fixed text for sources that come without one (a release archive).
function(nq_define_build_identifier source)
    set(identifier 0000000000000000)
    find_package(Git QUIET)
    # A copy inside another repository must not pass that one's revision off as its own.
    if(GIT_FOUND AND EXISTS ${PROJECT_SOURCE_DIR}/.git)
        execute_process(
            COMMAND ${GIT_EXECUTABLE} -C ${PROJECT_SOURCE_DIR} rev-parse --verify --quiet HEAD
            OUTPUT_VARIABLE revision
            OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
        if(revision MATCHES "^[0-9a-f]+$")
            string(SUBSTRING ${revision} 0 16 identifier)
            # A new commit must reach the next build.
            set(history ${PROJECT_SOURCE_DIR}/.git/logs/HEAD)
            if(EXISTS ${history})
                set_property(
                    DIRECTORY ${PROJECT_SOURCE_DIR}
                    APPEND
                    PROPERTY CMAKE_CONFIGURE_DEPENDS ${history})
            endif()
        endif()
    endif()
    set_property(
        SOURCE ${source}
        APPEND
        PROPERTY COMPILE_DEFINITIONS NQ_BUILD_IDENTIFIER="${identifier}")
endfunction()
