# Counters of what is executed, for scripts/coverage (preset coverage): in the monitor's own code
# alone, whichever program it is built into.
add_library(ovard_counters STATIC tests/coverage/KeepCounters.cpp)
target_link_options(ovard_counters
    PUBLIC --coverage LINKER:--wrap=_exit LINKER:--wrap=execv)

foreach(target ovard ovard_application ovard_base ovard_core ovard_platform)
    # Threads count at the same time.
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
    target_link_libraries(${target} PUBLIC ovard_counters)
endforeach()
