# The module as a DLL. Windows has the packed layout only.
foreach(LINE IN LISTS EXPORT_LINES)
    if(LINE MATCHES "^EXPORT\\((.*)\\)")
        string(APPEND STANDARD_NAMES "    ${CMAKE_MATCH_1}\n")
    endif()
endforeach()
file(CONFIGURE OUTPUT velkor-pkcs11.def CONTENT "EXPORTS\n@STANDARD_NAMES@" @ONLY)
configure_file(../packaging/velkor-pkcs11.rc.in velkor-pkcs11.rc @ONLY)

add_library(velkor-pkcs11 SHARED ${MODULE_SOURCES} platform/unload_windows.cpp ${CMAKE_CURRENT_BINARY_DIR}/velkor-pkcs11.def
                                 ${CMAKE_CURRENT_BINARY_DIR}/velkor-pkcs11.rc)
add_library(velkor-pkcs11-packed ALIAS velkor-pkcs11)
set_target_properties(velkor-pkcs11 PROPERTIES PREFIX "")
# The extensions have C++ names, which the list of C names cannot hold.
set_source_files_properties(frame/unsupported.cpp PROPERTIES COMPILE_DEFINITIONS
                                                             "VELKOR_EXTENSION=__declspec(dllexport)")
target_include_directories(velkor-pkcs11 PUBLIC ${PROJECT_SOURCE_DIR}/include PRIVATE .)
target_link_libraries(velkor-pkcs11 PRIVATE product_options module_device)
precompile(velkor-pkcs11)
add_dependencies(installed velkor-pkcs11)
install(TARGETS velkor-pkcs11 RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT module)
