# Installation and packages. Two components: runtime (programs, manuals, what starts the monitor)
# and development (libraries, headers); `cmake --install BUILD --component runtime` takes one alone.
# `cpack -G DEB` in the build folder makes a Debian package of each.

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME runtime)
add_subdirectory(packaging)

set(CPACK_COMPONENTS_ALL runtime)
if(OVARD_BUILD_TOOLS OR NOT OVARD_PLATFORM_LIBRARY)
    list(APPEND CPACK_COMPONENTS_ALL development)
endif()
set(CPACK_PACKAGE_NAME ovard)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # Each package has its own.
set(CPACK_PACKAGE_VENDOR "The ovard maintainers")
set(CPACK_PACKAGE_CONTACT "The ovard maintainers <ovard@localhost>" CACHE STRING
    "Maintainer of the packages")
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_SOURCE_DIR}/LICENSE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/packaging/debian/RequireTools.cmake
                            ${CMAKE_SOURCE_DIR}/packaging/debian/FinishDocuments.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(OVARD_DEBIAN_FILES ${CMAKE_SOURCE_DIR}/packaging/debian)
file(READ ${OVARD_DEBIAN_FILES}/description.txt CPACK_DEBIAN_RUNTIME_DESCRIPTION)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ovard)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${OVARD_DEBIAN_FILES}/conffiles ${OVARD_DEBIAN_FILES}/postinst ${OVARD_DEBIAN_FILES}/postrm)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "bash-completion")
if(CMAKE_CROSSCOMPILING)
    # dpkg-shlibdeps would have to know the libraries of the other machine.
    string(REGEX REPLACE "^ppc$" "powerpc" CPACK_DEBIAN_PACKAGE_ARCHITECTURE
           "${CMAKE_SYSTEM_PROCESSOR}")
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6, libgcc-s1, libstdc++6")
else()
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
endif()

file(READ ${OVARD_DEBIAN_FILES}/description-dev.txt CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libovard-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "ovard, pkg-config")
include(CPack)
