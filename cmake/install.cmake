# What "cmake --install" puts in place, by component: program, tarnlink, tsanalyze, development.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/orvscan)
set(examples_dir ${CMAKE_INSTALL_DATADIR}/orvscan/examples)

install(TARGETS orvscan orvreport COMPONENT program)
install(FILES docs/man/orvscan.1 docs/man/orvreport.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)
install(FILES docs/man/orvscan.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT program)
install(FILES completions/orvscan completions/orvreport
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT program)
install(FILES docs/orvreport.schema.json
  DESTINATION ${CMAKE_INSTALL_DATADIR}/orvscan COMPONENT program)
install(FILES docs/orvscan.conf.sample DESTINATION ${examples_dir} COMPONENT program)

foreach(library IN ITEMS tarnlink tsanalyze)
  if(TARGET ${library}_shared)
    install(TARGETS ${library}_shared EXPORT orvscan
      LIBRARY COMPONENT ${library} NAMELINK_COMPONENT development
      INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  endif()
  install(TARGETS ${library} EXPORT orvscan
    ARCHIVE COMPONENT development INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endforeach()
install(DIRECTORY lib/include/ orvane/tsanalyze/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING PATTERN "*.h")
install(FILES docs/man/tsanalyze.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
install(DIRECTORY examples/ DESTINATION ${examples_dir} COMPONENT development)

# find_package(orvscan)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/orvscanConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES cmake/orvscanConfig.cmake ${CMAKE_BINARY_DIR}/orvscanConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT development)
install(EXPORT orvscan NAMESPACE orvscan:: FILE orvscanTargets.cmake
  DESTINATION ${package_dir} COMPONENT development)

# pkg-config finds the folders from where the files are, so that a prefix can be moved.
string(REGEX REPLACE "[^/]+" ".." pc_prefix ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
foreach(library IN ITEMS tarnlink tsanalyze)
  configure_file(cmake/lib${library}.pc.in lib${library}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/lib${library}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
