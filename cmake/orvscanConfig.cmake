# The libraries of orvscan: orvscan::tsanalyze, the engine, and orvscan::tarnlink, the service
# library; orvscan::tsanalyze_static and orvscan::tarnlink_static are the same to be linked in, which
# needs libconfig's development files. Do not mix the two kinds in one process.
include(${CMAKE_CURRENT_LIST_DIR}/orvscanTargets.cmake)

foreach(library IN ITEMS tarnlink tsanalyze)
  if(NOT TARGET orvscan::${library})
    add_library(orvscan::${library} ALIAS orvscan::${library}_static)
  endif()
endforeach()
