# Installs the build into an empty prefix, and forgets the consumers of the one before.
file(REMOVE_RECURSE ${PREFIX} ${CONSUMERS})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${PREFIX} COMMAND_ERROR_IS_FATAL ANY)
