# On Windows: what needs neither other programs nor POSIX permissions, and some tests of Windows' own. All of it lies in
# one folder, as its users install it; a library beside the program is the first that Windows finds.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/softkey)

find_package(nlohmann_json REQUIRED)
add_executable(softkey_loader loader.cpp)
target_link_libraries(softkey_loader PRIVATE device_interface project_options)

add_executable(softkey_test crypto_test.cpp decryption_test.cpp devices_test.cpp
                            hash_test.cpp machine_test.cpp objects_test.cpp operations_test.cpp
                            pins_test.cpp tool_import_test.cpp tool_objects_test.cpp tool_requests_test.cpp
                            tool_test.cpp windows_test.cpp world.cpp
                            ${PROJECT_SOURCE_DIR}/softkey/platform/narrow_paths_windows.cpp)
target_precompile_headers(softkey_test REUSE_FROM test_headers)
target_link_libraries(softkey_test PRIVATE softkey softkey_core test_options test_system nlohmann_json::nlohmann_json
                                           GTest::gtest_main)
configure_file(${PROJECT_SOURCE_DIR}/softkey/velkor-softkey.1 ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/velkor-softkey.1 COPYONLY)
add_dependencies(softkey_test softkey_loader velkor-softkey)

add_executable(softkey_module_test module_test.cpp)
target_precompile_headers(softkey_module_test REUSE_FROM test_headers)
target_link_libraries(softkey_module_test PRIVATE velkor-pkcs11 test_options test_system GTest::gtest_main)
add_custom_command(TARGET softkey_module_test POST_BUILD
                   COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:velkor-pkcs11>
                           $<TARGET_FILE_DIR:softkey_module_test>)
add_dependencies(softkey_module_test velkor-softkey)

foreach(TEST IN ITEMS softkey_test softkey_module_test)
    gtest_discover_tests(${TEST} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endforeach()
