# The module, built twice from the same sources: once for each structure layout.
foreach(LINE IN LISTS EXPORT_LINES)
    if(LINE MATCHES "^EXPORT\\((.*)\\)")
        string(APPEND STANDARD_NAMES "    ${CMAKE_MATCH_1};\n")
    elseif(LINE MATCHES "^EXTENSION\\((.*)\\)")
        string(APPEND EXTENSION_NAMES "        ${CMAKE_MATCH_1}*;\n")
    endif()
endforeach()
set(VERSION_SCRIPT ${CMAKE_CURRENT_BINARY_DIR}/exports.map)
file(CONFIGURE OUTPUT exports.map CONTENT
     "{\nglobal:\n@STANDARD_NAMES@    extern \"C++\" {\n@EXTENSION_NAMES@    };\nlocal:\n    *;\n};\n" @ONLY)

function(add_cryptoki_module name)
    add_library(${name} SHARED ${MODULE_SOURCES})
    set_target_properties(${name} PROPERTIES PREFIX "" CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
                                             BUILD_RPATH $ORIGIN:$ORIGIN/../softkey INSTALL_RPATH $ORIGIN)
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/include PRIVATE .)
    # A host may unload the library without C_Finalize, while the monitor thread runs in it: it stays mapped.
    # Its function table names its own functions, whatever library a host has made global before.
    target_link_options(${name} PRIVATE LINKER:--version-script=${VERSION_SCRIPT} LINKER:-z,nodelete
                        LINKER:-Bsymbolic-functions)
    set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${VERSION_SCRIPT})
    target_link_libraries(${name} PRIVATE product_options module_device)
    precompile(${name})
    add_dependencies(installed ${name})
    install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/velkor COMPONENT module)
endfunction()

set_source_files_properties(frame/entry_points.cpp frame/unsupported.cpp PROPERTIES
                            COMPILE_OPTIONS -fvisibility=default SKIP_PRECOMPILE_HEADERS ON)

add_cryptoki_module(velkor-pkcs11)
target_compile_definitions(velkor-pkcs11 PUBLIC CRYPTOKI_HOST_LAYOUT)
add_cryptoki_module(velkor-pkcs11-packed)
