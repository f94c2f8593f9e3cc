# Gives `source` the macro NQ_BUILD_IDENTIFIER: the first sixteen hexadecimal digits of the source
# revision, or a fixed text for sources that do not say which one they are.
function(nq_define_build_identifier source)
    # In an archive that git has made, git has put the revision here.
    file(STRINGS ${PROJECT_SOURCE_DIR}/cmake/nqRevision.txt revision LIMIT_COUNT 1)
    if(NOT revision MATCHES "^[0-9a-f]+$")
        nq_find_revision(revision)
    endif()
    set(identifier 0000000000000000)
    if(revision MATCHES "^[0-9a-f]+$")
        string(SUBSTRING ${revision} 0 16 identifier)
    endif()
    set_property(
        SOURCE ${source}
        APPEND
        PROPERTY COMPILE_DEFINITIONS NQ_BUILD_IDENTIFIER="${identifier}")
endfunction()

# What is checked out here; empty without git or outside a repository.
function(nq_find_revision revision)
    set(${revision} "" PARENT_SCOPE)
    find_package(Git QUIET)
    if(NOT GIT_FOUND)
        return()
    endif()
    # Named to git, so that it does not look further: a copy inside another repository must not pass
    # that one's revision off as its own. In a worktree or a submodule it is a file.
    set(git ${GIT_EXECUTABLE} --git-dir=${PROJECT_SOURCE_DIR}/.git)
    execute_process(
        COMMAND ${git} rev-parse --verify --quiet HEAD
        OUTPUT_VARIABLE head
        OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(NOT head)
        return()
    endif()
    set(${revision} ${head} PARENT_SCOPE)
    # A new commit must reach the next build.
    execute_process(
        COMMAND ${git} rev-parse --git-path logs/HEAD
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
        OUTPUT_VARIABLE history
        OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    get_filename_component(history ${history} ABSOLUTE BASE_DIR ${PROJECT_SOURCE_DIR})
    if(EXISTS ${history})
        set_property(
            DIRECTORY ${PROJECT_SOURCE_DIR}
            APPEND
            PROPERTY CMAKE_CONFIGURE_DEPENDS ${history})
    endif()
endfunction()
