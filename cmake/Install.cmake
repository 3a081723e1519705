include(CMakePackageConfigHelpers)

install(TARGETS kelr EXPORT kelrTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/kel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT kelrTargets NAMESPACE kelr:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kelr)

configure_package_config_file(cmake/kelrConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/kelrConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kelr)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kelrConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kelrConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kelrConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kelr)

configure_file(cmake/kelr.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kelr.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kelr.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
