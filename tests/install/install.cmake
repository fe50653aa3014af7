# Installs BUILD into TREE, which holds nothing else afterwards.
file(REMOVE_RECURSE ${TREE})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${TREE} COMMAND_ERROR_IS_FATAL ANY)
