# A host in one folder, the module with its device library in another, as they lie on a user's machine; and all of them
# in a third.
set(FOLDER ${CMAKE_CURRENT_BINARY_DIR}/installed)
add_executable(windows_host windows_host.cpp)
target_include_directories(windows_host PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
target_compile_definitions(windows_host PRIVATE VERSION_MAJOR=${PROJECT_VERSION_MAJOR}
                                                VERSION_MINOR=${PROJECT_VERSION_MINOR})
target_link_libraries(windows_host PRIVATE project_options version)
add_custom_target(windows_host_folders ALL
    COMMAND ${CMAKE_COMMAND} -E make_directory ${FOLDER}/host ${FOLDER}/module ${FOLDER}/together
    COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:windows_host> ${FOLDER}/host
    COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:velkor-pkcs11> $<TARGET_FILE:device_double>
            ${FOLDER}/module
    COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:windows_host> $<TARGET_FILE:velkor-pkcs11>
            $<TARGET_FILE:device_double> ${FOLDER}/together
    DEPENDS windows_host velkor-pkcs11 device_double)
foreach(WAY IN ITEMS altered-search-path search-path dll-folder full-path-alone program-folder version
                     exit-without-finalize exit-in-thread quick-exit finalize-after-main unload-and-load-again)
    set(PROGRAM ${FOLDER}/$<IF:$<STREQUAL:${WAY},program-folder>,together,host>/windows_host.exe)
    add_test(NAME WindowsHost.${WAY} COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} ${PROGRAM} ${WAY})
    set_tests_properties(WindowsHost.${WAY} PROPERTIES TIMEOUT 120)
endforeach()
