# Debian packages with CPack: `cpack -G DEB` in a build folder configured
# with -DCMAKE_INSTALL_PREFIX=/usr (so that the library lands in the
# multiarch folder) makes one package per install component.
# scripts/packaging-test.sh builds them, runs lintian and installs them.

set(TSAPP_SOVERSION ${PROJECT_VERSION_MAJOR})
set(TSAPP_DEB_RUNTIME libtsappinstall${TSAPP_SOVERSION})
set(TSAPP_DEB_DEV libtsappinstall-dev)
set(TSAPP_DEB_TOOL tsapp)

# Every package carries its copyright file and changelog; a plain
# `cmake --install` leaves them out (they are only asked for by component).
set(TSAPP_CHANGELOG ${PROJECT_SOURCE_DIR}/packaging/changelog)
file(STRINGS ${TSAPP_CHANGELOG} TSAPP_CHANGELOG_TOP LIMIT_COUNT 1)
if(NOT TSAPP_CHANGELOG_TOP MATCHES "^tsappinstall \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/changelog must begin with an entry for ${PROJECT_VERSION}")
endif()
set(TSAPP_CHANGELOG_GZ ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.gz)
add_custom_command(
  OUTPUT ${TSAPP_CHANGELOG_GZ}
  COMMAND ${CMAKE_COMMAND} -E copy ${TSAPP_CHANGELOG} ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog
  COMMAND gzip -9nf ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog
  DEPENDS ${TSAPP_CHANGELOG}
  COMMENT "Compressing the package changelog")
add_custom_target(tsapp_changelog ALL DEPENDS ${TSAPP_CHANGELOG_GZ})
foreach(component IN ITEMS runtime dev tool)
  string(TOUPPER ${component} upper)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${TSAPP_CHANGELOG_GZ}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${TSAPP_DEB_${upper}}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

# The library's folder is one ldconfig watches: dpkg runs it through this
# trigger.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/packaging/triggers "activate-noawait ldconfig\n")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tsappinstall)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "tsappinstall maintainers <maintainers@tsappinstall.example>")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime dev tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Building needs libsqlite3-dev and libcurl4-openssl-dev beside the other
# -dev packages scripts/setup.sh installs; the run-time libraries are found
# by dpkg-shlibdeps like every other, but for libcurl (below).
# dpkg-shlibdeps finds the run-time dependencies of every ELF file; the
# library's package gets a shlibs file (CPack has no per-package switch for
# it, and only a package holding a library gets one), so that programs
# built against it depend on this version or later.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${TSAPP_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/packaging/triggers)
# The library loads libcurl.so.4 with dlopen on its first transfer, so
# dpkg-shlibdeps does not see it; libcurl4 is the package of the OpenSSL
# flavour built against (libcurl4-openssl-dev). 7.85.0 brought
# CURLOPT_PROTOCOLS_STR, which every transfer sets.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libcurl4 (>= 7.85.0)")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "library to inspect, unpack and sign app packages
libtsappinstall reads app packages (.tsappinstall files: OPC packages in a
ZIP container): it tells whether a file is one, reads and validates the
app's signed XML manifest, copies the icon, the screenshot or any part into
a file, and unpacks the whole package into a folder, all or nothing.
It also reads, builds, signs and writes manifests, installs apps into an
apps root whose records it keeps in an SQLite database, publishes folders
of packages as signed repositories and fetches packages from them.
This package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${TSAPP_DEB_DEV})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The public headers name Xerces-C and Boost types.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${TSAPP_DEB_RUNTIME} (= ${PROJECT_VERSION}), libxerces-c-dev (>= 3.2), libboost-dev (>= 1.74)")
set(CPACK_DEBIAN_DEV_DESCRIPTION "library to inspect, unpack and sign app packages - development files
libtsappinstall reads app packages (.tsappinstall files: OPC packages in a
ZIP container) and reads, validates, signs and writes their XML manifest.
This package holds the headers, the CMake package configuration
(find_package(tsappinstall)) and the pkg-config file.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ${TSAPP_DEB_TOOL})
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
# tsapp runs on the shared library, which dpkg-shlibdeps finds in the
# build folder; it cannot name the package for it (that one is built
# alongside, not installed), so the tool asks for the very version built
# from the same source itself.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${TSAPP_DEB_RUNTIME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOL_DESCRIPTION "inspect, check, unpack and build app packages
tsapp works on app packages (.tsappinstall files): it checks many packages
at once, shows the signed manifest for people or as JSON, copies the icon,
the screenshot or any part into a file, unpacks a package, builds a
signed package from a folder, and installs, upgrades, rolls back, removes
and audits apps in an apps root.")

include(CPack)
