# Run by CPack over the files of each package before it is packed: compresses what Debian wants compressed.
file(GLOB_RECURSE PAGES ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.[1-9]
                        ${CPACK_TEMPORARY_DIRECTORY}/*/changelog.Debian)
execute_process(COMMAND gzip -9 --no-name --force ${PAGES} COMMAND_ERROR_IS_FATAL ANY)
