# Programs without shared libraries, for machines where these are missing.

include(${CMAKE_CURRENT_LIST_DIR}/StaticLayout.cmake)

# Links the program `target` a second time, from the same objects, as bin/static/target; the name of
# that is target_static. Call it when the program's libraries and options are complete.
function(ovard_add_static_program target)
    set(program ${target}_static)
    add_executable(${program} $<TARGET_OBJECTS:${target}>)
    set_target_properties(${program} PROPERTIES
        LINKER_LANGUAGE CXX
        OUTPUT_NAME ${target}
        RUNTIME_OUTPUT_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/static)
    get_target_property(libraries ${target} LINK_LIBRARIES)
    if(libraries)
        target_link_libraries(${program} PRIVATE ${libraries})
    endif()
    get_target_property(options ${target} LINK_OPTIONS)
    if(NOT options)
        set(options)
    endif()
    # Not loaded anywhere: adjusted to its place, more of it would be memory of its own.
    target_link_options(${program} PRIVATE ${options} -static -no-pie)
    if(OVARD_WARNINGS_AS_ERRORS)
        # The C library has calls that need its shared parts none the less.
        target_link_options(${program} PRIVATE LINKER:--fatal-warnings)
    endif()
endfunction()

# The monitor as a meter gets it: without names, its code in the order that costs least memory.
function(ovard_add_static_monitor)
    ovard_add_static_program(ovard)
    target_link_options(ovard_static PRIVATE -s)
    ovard_order_code(ovard_static)
endfunction()

# Links every program of `folder` and the folders in it a second time.
function(ovard_add_static_programs folder)
    get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target IN LISTS targets)
        get_target_property(type ${target} TYPE)
        if(type STREQUAL EXECUTABLE AND NOT target MATCHES "_static$" AND NOT TARGET ${target}_static)
            ovard_add_static_program(${target})
        endif()
    endforeach()
    get_property(folders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
    foreach(subfolder IN LISTS folders)
        ovard_add_static_programs(${subfolder})
    endforeach()
endfunction()
