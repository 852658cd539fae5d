# Cross build for the meter: 32-bit big-endian PowerPC, glibc (Debian: g++-powerpc-linux-gnu).

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Where a single program of the meter can be run here, the unit tests can (Debian: qemu-user).
find_program(OVARD_EMULATOR qemu-ppc)
if(OVARD_EMULATOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${OVARD_EMULATOR} -L ${CMAKE_FIND_ROOT_PATH})
endif()
