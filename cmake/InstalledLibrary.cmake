# Installs the static library NAME with its C header and a pkg-config file made of
# packaging/pkgconfig/NAME.pc.in, for those who build programs with it.
function(ovard_install_library name header)
    file(RELATIVE_PATH OVARD_PC_INCLUDEDIR
         ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_FULL_INCLUDEDIR})
    configure_file(${CMAKE_SOURCE_DIR}/packaging/pkgconfig/${name}.pc.in
                   ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc @ONLY)
    install(TARGETS ${name} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
    install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
