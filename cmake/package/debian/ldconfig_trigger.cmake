# CPack gives a library's package scripts that call ldconfig. Debian's way is a trigger: all packages
# that are installed together share one call.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
    set(content ${package}.content)
    file(REMOVE_RECURSE ${content})
    execute_process(
        COMMAND dpkg-deb --raw-extract ${package} ${content} COMMAND_ERROR_IS_FATAL ANY)
    if(EXISTS ${content}/DEBIAN/postinst)
        file(REMOVE ${content}/DEBIAN/postinst ${content}/DEBIAN/postrm)
        file(WRITE ${content}/DEBIAN/triggers "activate-noawait ldconfig\n")
        execute_process(
            COMMAND dpkg-deb --root-owner-group -Zxz --build ${content} ${package}
            OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    endif()
    file(REMOVE_RECURSE ${content})
endforeach()
