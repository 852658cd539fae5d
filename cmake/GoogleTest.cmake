# GoogleTest, as GTest::gtest and its relatives: installed, or, where the programs are for another
# machine, built from the sources that Debian installs with it.

if(NOT CMAKE_CROSSCOMPILING)
    find_package(GTest REQUIRED)
    return()
endif()

set(OVARD_GOOGLETEST_SOURCES /usr/src/googletest CACHE PATH
    "Sources of GoogleTest for cross builds (Debian: googletest)")
if(NOT EXISTS ${OVARD_GOOGLETEST_SOURCES}/CMakeLists.txt)
    message(FATAL_ERROR "The tests for another machine need the sources of GoogleTest in "
                        "${OVARD_GOOGLETEST_SOURCES}: install googletest, name another folder with "
                        "-DOVARD_GOOGLETEST_SOURCES, or configure with -DOVARD_BUILD_TESTS=OFF")
endif()
set(INSTALL_GTEST OFF CACHE BOOL "")
add_subdirectory(${OVARD_GOOGLETEST_SOURCES} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
foreach(library gtest gtest_main gmock gmock_main)
    target_compile_options(${library} PRIVATE -w) # Its sources are not ours to mend.
endforeach()
target_sources(gtest PRIVATE ${CMAKE_SOURCE_DIR}/tests/unit/support/NoResolver.cpp)

# No program for the other machine runs while they are built.
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)
