# A library for hosts: compiled once, as NAME_objects, and made into the static library NAME, which
# everything here links, and the shared NAME_shared. Installed they are orvscan::NAME_static and
# orvscan::NAME; without the shared one, both names mean the static one.
#
# orvscan_add_library(NAME SOURCES... HEADERS dir LIBRARIES names...)
function(orvscan_add_library name)
  cmake_parse_arguments(arg "" "HEADERS" "SOURCES;LIBRARIES" ${ARGN})
  add_library(${name}_objects OBJECT ${arg_SOURCES})
  target_include_directories(${name}_objects PUBLIC ${arg_HEADERS})
  target_link_libraries(${name}_objects PRIVATE orvscan_flags)

  add_library(${name} STATIC $<TARGET_OBJECTS:${name}_objects>)
  set_target_properties(${name} PROPERTIES EXPORT_NAME ${name}_static)
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/${arg_HEADERS}>)
  add_library(orvscan::${name} ALIAS ${name})

  if(ORVSCAN_SHARED)
    add_library(${name}_shared SHARED $<TARGET_OBJECTS:${name}_objects>)
    set_target_properties(${name}_shared PROPERTIES
      EXPORT_NAME ${name}
      OUTPUT_NAME ${name}
      VERSION ${PROJECT_VERSION}
      SOVERSION ${PROJECT_VERSION_MAJOR})
    target_link_options(${name}_shared PRIVATE
      LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/shared.map)
    set_property(TARGET ${name}_shared PROPERTY
      LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/shared.map)
    target_link_libraries(${name}_shared PRIVATE orvscan_flags)
  endif()
endfunction()
