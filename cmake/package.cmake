# Debian packages by CPack, one for each component; script/package makes and checks them.
set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_CONTACT "The orvscan authors <orvscan@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # every package has its own
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL program tarnlink tsanalyze development)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/compress.cmake)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE orvscan)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
configure_file(packaging/changelog.in changelog.Debian @ONLY)

# orvscan_add_package(COMPONENT package section depends description)
macro(orvscan_add_package component package section depends description)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_COMPONENT_${upper}_DESCRIPTION "${description}")
  install(FILES packaging/copyright ${CMAKE_BINARY_DIR}/changelog.Debian
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
  install(FILES CHANGELOG.md RENAME changelog
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

orvscan_add_package(program orvscan video ""
"${PROJECT_DESCRIPTION}
Follows PAT and PMTs of a capture, checks continuity counters, PCR intervals
and time stamps, finds silent streams, and reports what is wrong for people and
for scripts.")
orvscan_add_package(tarnlink libtarnlink${PROJECT_VERSION_MAJOR} libs ""
"service library of orvscan
A logger with rotation, a shared-memory log, clocks and time strings for
programs that run for months.")
orvscan_add_package(tsanalyze libtsanalyze${PROJECT_VERSION_MAJOR} libs
  "libtarnlink${PROJECT_VERSION_MAJOR} (= ${version})"
"transport-stream analyzer engine
The engine of orvscan for other hosts: takes transport-stream packets one by
one, raises alerts and writes statistics.")
orvscan_add_package(development liborvscan-dev libdevel
  "libtsanalyze${PROJECT_VERSION_MAJOR} (= ${version}), libtarnlink${PROJECT_VERSION_MAJOR} (= ${version}), libconfig-dev"
"transport-stream analyzer engine (development files)
Headers, static libraries, CMake package, pkg-config files and example hosts
of libtsanalyze and libtarnlink.")
# Hosts need the version they were built with, or a later one.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
foreach(library IN ITEMS TARNLINK TSANALYZE)
  set(CPACK_DEBIAN_${library}_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
endforeach()

include(CPack)
