# Bounds what a memory error can be abused for: canaries on the stack, checked calls of the C
# library, programs that are loaded anywhere, their tables read-only before main, a stack without
# code. What the tools for the machine do not know is left out; tests/hardening notices.

include(CheckCXXSourceCompiles)

# Sets OVARD_HARDENS_${name} where compiler and linker take the options without a complaint.
function(ovard_try_hardening name compile_options link_options)
    set(CMAKE_REQUIRED_FLAGS ${compile_options})
    set(CMAKE_REQUIRED_LINK_OPTIONS ${link_options})
    check_cxx_source_compiles("int main() { return 0; }" OVARD_HARDENS_${name}
                              FAIL_REGEX "[Ww]arning|[Uu]nrecognized|[Uu]nknown")
endfunction()

set(protect_stack -fstack-protector-strong)
ovard_try_hardening(STACK "${protect_stack}" "")
if(OVARD_HARDENS_STACK)
    add_compile_options(${protect_stack})
endif()

ovard_try_hardening(ADDRESSES -fPIE -pie)
if(OVARD_HARDENS_ADDRESSES)
    # Shared libraries are loaded anywhere as they are.
    set(type $<TARGET_PROPERTY:TYPE>)
    add_compile_options($<$<NOT:$<IN_LIST:${type},SHARED_LIBRARY$<SEMICOLON>MODULE_LIBRARY>>:-fPIE>)
    add_link_options($<$<STREQUAL:${type},EXECUTABLE>:-pie>)
endif()

set(protect_tables LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
ovard_try_hardening(TABLES "" "${protect_tables}")
if(OVARD_HARDENS_TABLES)
    add_link_options(${protect_tables})
endif()

# The library's checks need an optimising compiler. Some compilers define the level themselves.
set(OVARD_OPTIMISED $<OR:$<CONFIG:Release>,$<CONFIG:RelWithDebInfo>,$<CONFIG:MinSizeRel>>)
add_compile_options("$<${OVARD_OPTIMISED}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
