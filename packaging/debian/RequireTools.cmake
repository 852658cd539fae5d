# Ends CPack where it would make a package without dependencies, because the tool that finds them is
# missing: CPack itself only warns of that.
find_program(SHLIBDEPS_EXECUTABLE dpkg-shlibdeps)
if(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS AND NOT SHLIBDEPS_EXECUTABLE)
    message(FATAL_ERROR "dpkg-shlibdeps is missing; install the Debian package dpkg-dev")
endif()
