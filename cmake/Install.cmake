include(CMakePackageConfigHelpers)

# Three install components, one per Debian package (cmake/Packaging.cmake):
# runtime (the versioned shared library), dev (what a consumer builds
# against) and tool (tsapp, its man page and its bash completion).
# Shared libraries are not programs: 0644, as Debian installs them.
install(TARGETS tsappinstall EXPORT tsappinstallTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
    COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/tsappinstall DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

set(TSAPP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tsappinstall)
install(EXPORT tsappinstallTargets NAMESPACE tsappinstall:: DESTINATION ${TSAPP_CMAKE_DIR}
  COMPONENT dev)
configure_package_config_file(cmake/tsappinstallConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tsappinstallConfig.cmake INSTALL_DESTINATION ${TSAPP_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tsappinstallConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tsappinstallConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/tsappinstallConfigVersion.cmake DESTINATION ${TSAPP_CMAKE_DIR}
  COMPONENT dev)

# The .pc file finds its prefix from where it lies, so an installed tree
# can be moved (or installed with --prefix) and still be found.
file(RELATIVE_PATH TSAPP_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" TSAPP_PC_TO_PREFIX "${TSAPP_PC_TO_PREFIX}")
configure_file(cmake/tsappinstall.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tsappinstall.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tsappinstall.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)
