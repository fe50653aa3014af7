# A host in one folder, the module with its device library in another, as they lie on a user's machine.
set(FOLDER ${CMAKE_CURRENT_BINARY_DIR}/installed)
add_executable(windows_host windows_host.cpp)
set_target_properties(windows_host PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${FOLDER}/host)
target_include_directories(windows_host PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(windows_host PRIVATE project_options version)
add_custom_target(windows_host_module ALL
    COMMAND ${CMAKE_COMMAND} -E make_directory ${FOLDER}/module
    COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:velkor-pkcs11> $<TARGET_FILE:device_double>
            ${FOLDER}/module
    DEPENDS velkor-pkcs11 device_double)
foreach(WAY IN ITEMS altered-search-path search-path dll-folder full-path-alone exit-without-finalize version)
    add_test(NAME WindowsHost.${WAY} COMMAND windows_host ${WAY})
    set_tests_properties(WindowsHost.${WAY} PROPERTIES TIMEOUT 120)
endforeach()
