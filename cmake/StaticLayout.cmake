# The order of the code in statically linked programs.

include(CheckCXXSourceCompiles)

set(OVARD_STATIC_LAYOUT ${CMAKE_CURRENT_LIST_DIR}/StaticLayout.ld)

# Orders the code of the statically linked program `target` as StaticLayout.ld says. Where the
# linker cannot add to its script (GNU gold), the program is as useful, and larger in memory.
function(ovard_order_code target)
    set(order_code LINKER:-T,${OVARD_STATIC_LAYOUT})
    set(CMAKE_REQUIRED_LINK_OPTIONS -static ${order_code})
    check_cxx_source_compiles("int main() { return 0; }" OVARD_ORDERS_CODE)
    if(OVARD_ORDERS_CODE)
        target_link_options(${target} PRIVATE ${order_code})
        set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${OVARD_STATIC_LAYOUT})
    endif()
endfunction()
