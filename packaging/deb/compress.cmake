# Run by cpack over what it has collected, before it makes packages of it: what Debian keeps compressed.
file(GLOB_RECURSE files ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/man/*/*.[1-9]
     ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/doc/*/changelog)
foreach(file IN LISTS files)
  execute_process(COMMAND gzip -9nf ${file} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
