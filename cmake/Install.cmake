include(CMakePackageConfigHelpers)

install(TARGETS tsappinstall EXPORT tsappinstallTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/tsappinstall DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(TSAPP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tsappinstall)
install(EXPORT tsappinstallTargets NAMESPACE tsappinstall:: DESTINATION ${TSAPP_CMAKE_DIR})
configure_package_config_file(cmake/tsappinstallConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tsappinstallConfig.cmake INSTALL_DESTINATION ${TSAPP_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tsappinstallConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tsappinstallConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/tsappinstallConfigVersion.cmake DESTINATION ${TSAPP_CMAKE_DIR})

# The .pc file finds its prefix from where it lies, so an installed tree
# can be moved (or installed with --prefix) and still be found.
file(RELATIVE_PATH TSAPP_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" TSAPP_PC_TO_PREFIX "${TSAPP_PC_TO_PREFIX}")
configure_file(cmake/tsappinstall.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tsappinstall.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tsappinstall.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
