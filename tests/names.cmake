# A name of a type, a test suite or a test belongs to one file. The build and ctest look.
file(GLOB_RECURSE NAMED_FILES CONFIGURE_DEPENDS *.h *.inc *.cpp)
set(CHECK_NAMES ${CMAKE_CURRENT_SOURCE_DIR}/check_names.cmake)
set(NAMES_STAMP ${CMAKE_CURRENT_BINARY_DIR}/names.stamp)
add_custom_command(OUTPUT ${NAMES_STAMP} DEPENDS ${CHECK_NAMES} ${NAMED_FILES} VERBATIM
                   COMMAND ${CMAKE_COMMAND} -D FOLDER=${CMAKE_CURRENT_SOURCE_DIR} -D STAMP=${NAMES_STAMP} -P ${CHECK_NAMES}
                   COMMENT "Looking for names that two test files use")
add_custom_target(test_names ALL DEPENDS ${NAMES_STAMP})
add_test(NAME TestNames.BelongToOneFile COMMAND ${CMAKE_COMMAND} -D FOLDER=${CMAKE_CURRENT_SOURCE_DIR} -P ${CHECK_NAMES})

# The check itself, over two files that share what they may and what they may not.
set(TWINS ${CMAKE_CURRENT_BINARY_DIR}/twins)
file(CONFIGURE OUTPUT ${TWINS}/fixture.h CONTENT "\nclass SharedTest\n{\n};\n")
file(CONFIGURE OUTPUT ${TWINS}/one_test.cpp CONTENT
     "\nstruct Twin {\n};\nusing Alias = SharedTest;\nTEST_F(SharedTest, One)\nTEST_F(Alias, One)\nTEST(Same, Test)\n")
file(CONFIGURE OUTPUT ${TWINS}/two_test.cpp CONTENT
     "\nclass Twin : public SharedTest\n{\n};\nclass Later;\nTEST_F(SharedTest, Two)\nTEST_P(Alias, Two)\nTEST(Same,\n     Test)\n")
add_test(NAME TestNames.ThatTwoFilesUseAreFound COMMAND ${CMAKE_COMMAND} -D FOLDER=${TWINS} -P ${CHECK_NAMES})
set_tests_properties(TestNames.ThatTwoFilesUseAreFound PROPERTIES
    PASS_REGULAR_EXPRESSION "type Twin: .*suite Alias: .*test Same\\.Test: .*suite Same: " FAIL_REGULAR_EXPRESSION "Shared|Later")
