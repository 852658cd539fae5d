# Names and compresses manuals and changelogs as Debian wants them. CPack runs this on the installed
# files before it makes the packages.
find_program(GZIP gzip)

function(compress file)
    execute_process(COMMAND ${GZIP} -9nf ${file} RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "gzip ${file}: ${result}")
    endif()
endfunction()

# The changelog of the packaging, which has no history of its own.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
function(write_debian_changelog documents)
    get_filename_component(package ${documents} NAME)
    file(WRITE ${documents}/changelog.Debian
         "${package} (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
         "  * New version; its changes are in the changelog of ovard.\n\n"
         " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
    compress(${documents}/changelog.Debian)
endfunction()

file(GLOB_RECURSE files ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*)
foreach(file IN LISTS files)
    get_filename_component(directory ${file} DIRECTORY)
    if(file MATCHES "/man/man[1-8]/[^/]*$")
        compress(${file})
    elseif(file MATCHES "/CHANGELOG\\.md$")
        file(RENAME ${file} ${directory}/changelog)
        compress(${directory}/changelog)
    elseif(file MATCHES "/copyright$")
        write_debian_changelog(${directory})
    endif()
endforeach()
