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

# Written at install time, so that the prefix in it is the one installed to (cmake --install
# --prefix), not the one configured.
install(CODE "
  set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(PROJECT_DESCRIPTION \"${PROJECT_DESCRIPTION}\")
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/kelr.pc.in\"
                 \"${CMAKE_CURRENT_BINARY_DIR}/kelr.pc\" @ONLY)
  file(INSTALL \"${CMAKE_CURRENT_BINARY_DIR}/kelr.pc\"
       DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\")
")
