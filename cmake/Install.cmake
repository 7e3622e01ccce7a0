include(CMakePackageConfigHelpers)

install(TARGETS vemo_shared vemo_static EXPORT vemoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/vemo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT vemoTargets NAMESPACE vemo:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vemo)

configure_package_config_file(cmake/vemoConfig.cmake.in
  ${PROJECT_BINARY_DIR}/vemoConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vemo)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vemoConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vemoConfig.cmake ${PROJECT_BINARY_DIR}/vemoConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vemo)

configure_file(cmake/vemo.pc.in ${PROJECT_BINARY_DIR}/vemo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vemo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
