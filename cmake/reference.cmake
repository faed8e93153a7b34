# The target "reference" makes a reference of the public headers in BUILD/reference/html.
find_program(DOXYGEN doxygen)
if(DOXYGEN)
  configure_file(docs/Doxyfile.in Doxyfile @ONLY)
  add_custom_target(reference COMMAND ${DOXYGEN} ${CMAKE_BINARY_DIR}/Doxyfile VERBATIM)
endif()
