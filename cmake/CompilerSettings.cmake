# Warnings, hardening and sanitizers that every target of the project is built with.

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(OVARD_WARNINGS_AS_ERRORS)
    # The linker's, too: without shared libraries, the C library has calls that need some none the
    # less, and only the linker says so.
    add_compile_options(-Werror)
    add_link_options(LINKER:--fatal-warnings)
endif()

# A cancelled thread unwinds through every frame, so each must carry its unwind tables.
add_compile_options(-fexceptions -fasynchronous-unwind-tables)

# The same sources give the same binary wherever they are built.
add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)

# The instrument's memory is smaller than its processor is slow.
add_compile_options($<$<CONFIG:Release>:-Os>)

# What a program does not use is left out when it is linked.
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(LINKER:--gc-sections)

# Inode numbers, sizes and offsets beyond 32 bits must not make calls fail on 32-bit machines.
add_compile_definitions(_FILE_OFFSET_BITS=64)

include_directories(${CMAKE_SOURCE_DIR})

if(OVARD_SANITIZE)
    add_compile_options(-fsanitize=${OVARD_SANITIZE} -fno-omit-frame-pointer
                        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${OVARD_SANITIZE})
    if(OVARD_SANITIZE MATCHES thread)
        # An object: the sanitizer has an empty list of its own, which would keep one in a library
        # out. Programs without the sanitizer get it, too.
        add_library(ovard_tsan_suppressions OBJECT tests/tsan_suppressions.cpp)
        set_target_properties(ovard_tsan_suppressions PROPERTIES POSITION_INDEPENDENT_CODE ON)
        target_compile_options(ovard_tsan_suppressions PRIVATE -fno-sanitize=all)
        link_libraries($<TARGET_OBJECTS:ovard_tsan_suppressions>)
    endif()
else()
    include(cmake/Hardening.cmake) # The sanitizers find what it makes harmless.
endif()
