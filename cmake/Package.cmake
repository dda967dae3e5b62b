# Installation: the shared library, the public headers, a CMake package (find_package(ruvo_capture))
# and a pkg-config file (ruvo_capture.pc).
include(CMakePackageConfigHelpers)

install(TARGETS ruvo_capture EXPORT ruvo_captureTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ruvo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT ruvo_captureTargets NAMESPACE ruvo:: FILE ruvo_captureTargets.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ruvo_capture)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ruvo_captureConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ruvo_captureConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ruvo_capture)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ruvo_captureConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ruvo_captureConfig.cmake ${PROJECT_BINARY_DIR}/ruvo_captureConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ruvo_capture)

configure_file(${PROJECT_SOURCE_DIR}/cmake/ruvo_capture.pc.in ${PROJECT_BINARY_DIR}/ruvo_capture.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ruvo_capture.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
