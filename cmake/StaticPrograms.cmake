# Programs without shared libraries, for machines where these are missing.

include(${CMAKE_CURRENT_LIST_DIR}/StaticLayout.cmake)

# Loaded at any address where the C library has a start for that (docs/security.md).
set(OVARD_STATIC_OPTIONS -static -no-pie)
if(OVARD_HARDENS_ADDRESSES AND NOT OVARD_SANITIZE)
    if(NOT DEFINED OVARD_HARDENS_STATIC_ADDRESSES)
        ovard_try_hardening(STATIC_ADDRESSES -fPIE -static-pie)
        if(NOT OVARD_HARDENS_STATIC_ADDRESSES)
            message(STATUS "Programs without shared libraries have a fixed address: "
                           "these tools do not link with -static-pie")
        endif()
    endif()
    if(OVARD_HARDENS_STATIC_ADDRESSES)
        set(OVARD_STATIC_OPTIONS -static-pie)
    endif()
endif()

# Links `program` without shared libraries, from the objects of the program `target`. Call it when
# that one's libraries and options are complete.
function(ovard_link_statically program target)
    add_executable(${program} $<TARGET_OBJECTS:${target}>)
    set_target_properties(${program} PROPERTIES LINKER_LANGUAGE CXX)
    get_target_property(libraries ${target} LINK_LIBRARIES)
    if(libraries)
        target_link_libraries(${program} PRIVATE ${libraries})
    endif()
    get_target_property(options ${target} LINK_OPTIONS)
    if(NOT options)
        set(options)
    endif()
    target_link_options(${program} PRIVATE ${options} ${OVARD_STATIC_OPTIONS})
endfunction()

# Links the program `target` a second time, as bin/static/target; the name of that is target_static.
function(ovard_add_static_program target)
    ovard_link_statically(${target}_static ${target})
    set_target_properties(${target}_static PROPERTIES
        OUTPUT_NAME ${target}
        RUNTIME_OUTPUT_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/static)
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
        if(type STREQUAL EXECUTABLE AND NOT target MATCHES "_static$"
           AND NOT TARGET ${target}_static)
            ovard_add_static_program(${target})
        endif()
    endforeach()
    get_property(folders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
    foreach(subfolder IN LISTS folders)
        ovard_add_static_programs(${subfolder})
    endforeach()
endfunction()
