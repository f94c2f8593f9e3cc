# nq_read_version(HEADER PREFIX RESULT): the version that HEADER defines as PREFIX_MAJOR, _MINOR and
# _PATCH. The headers are where versions stand, because programs include them; all else reads them here.
function(nq_read_version header prefix result)
    foreach(part MAJOR MINOR PATCH)
        file(STRINGS ${CMAKE_CURRENT_SOURCE_DIR}/${header} line REGEX "^#define ${prefix}_${part} [0-9]+$")
        if(NOT line)
            message(FATAL_ERROR "${header} does not define ${prefix}_${part} as a number.")
        endif()
        string(REGEX REPLACE ".* " "" number "${line}")
        list(APPEND numbers ${number})
    endforeach()
    list(JOIN numbers "." version)
    set(${result} ${version} PARENT_SCOPE)
    # A new version must reach the next build.
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
endfunction()
