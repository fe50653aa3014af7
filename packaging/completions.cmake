# install_completions(TOOL COMPONENT): what stands beside this file's caller as TOOL.bash, TOOL.zsh and TOOL.fish, each
# where its shell looks for it and by the name that it looks for.
function(install_completions TOOL COMPONENT)
    set(ZSH_FOLDER site-functions)
    if(CMAKE_INSTALL_PREFIX STREQUAL "/usr") # Debian's zsh looks elsewhere for what packages bring.
        set(ZSH_FOLDER vendor-completions)
    endif()
    set(bash bash-completion/completions/${TOOL})
    set(zsh zsh/${ZSH_FOLDER}/_${TOOL})
    set(fish fish/vendor_completions.d/${TOOL}.fish)
    foreach(SHELL IN ITEMS bash zsh fish)
        set(FILE ${CMAKE_CURRENT_SOURCE_DIR}/${TOOL}.${SHELL})
        cmake_path(GET ${SHELL} PARENT_PATH FOLDER)
        cmake_path(GET ${SHELL} FILENAME NAME)
        if(EXISTS ${FILE})
            install(FILES ${FILE} DESTINATION ${CMAKE_INSTALL_DATADIR}/${FOLDER} RENAME ${NAME} COMPONENT ${COMPONENT})
        endif()
    endforeach()
endfunction()
