# How the programs of the unit tests are compiled and become tests of CTest.

include(GoogleTest)

set(OVARD_TEST_PARTS 4) # Parts of a program run at the same time.

# To be called when the program has all its sources.
function(ovard_add_unit_tests target)
    if(OVARD_SANITIZE)
        target_compile_options(${target} PRIVATE -O0) # A test's own code is compiled more than run.
    endif()
    if(NOT OVARD_WHOLE_TESTS)
        gtest_discover_tests(${target} PROPERTIES LABELS unit DISCOVERY_TIMEOUT 60)
        return()
    endif()
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
    math(EXPR last "${OVARD_TEST_PARTS} - 1")
    foreach(part RANGE ${last})
        add_test(NAME ${target}.${part} COMMAND ${target} --gtest_brief=1)
        set_tests_properties(${target}.${part} PROPERTIES LABELS unit TIMEOUT 1200
            ENVIRONMENT "GTEST_TOTAL_SHARDS=${OVARD_TEST_PARTS};GTEST_SHARD_INDEX=${part}")
    endforeach()
endfunction()
