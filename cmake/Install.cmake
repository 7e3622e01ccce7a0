include(CMakePackageConfigHelpers)

# Install components, which the Debian packages follow (scripts/package.sh): "runtime" is what
# a device needs to run programs linked with vemo (the shared library under its SONAME),
# "development" what building them needs. What other directories install without a component
# (the reference daemon and the tools) stays in the default one.
install(TARGETS vemo_shared vemo_static EXPORT vemoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(DIRECTORY include/vemo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT vemoTargets NAMESPACE vemo:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vemo
  COMPONENT development)

configure_package_config_file(cmake/vemoConfig.cmake.in
  ${PROJECT_BINARY_DIR}/vemoConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vemo)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vemoConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vemoConfig.cmake ${PROJECT_BINARY_DIR}/vemoConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vemo COMPONENT development)

# vemo.pc names the prefix that the tree is installed into, which `cmake --install --prefix` or a
# package's /usr decide at install time, not the one configured: it is written when installed.
set(VEMO_PC_STAGING ${PROJECT_BINARY_DIR}/pkgconfig-install/vemo.pc)
install(CODE "
  set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/vemo.pc.in\" \"${VEMO_PC_STAGING}\" @ONLY)
" COMPONENT development)
install(FILES ${VEMO_PC_STAGING} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
