# Run by CPack before a package is made: manual pages and changelogs of packages are compressed.
file(GLOB_RECURSE texts
  ${CPACK_TEMPORARY_DIRECTORY}/usr/share/man/*
  ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*
  ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/changelog*)
list(FILTER texts EXCLUDE REGEX "\\.gz$")
if(texts)
  execute_process(COMMAND gzip -9n ${texts} COMMAND_ERROR_IS_FATAL ANY)
endif()
