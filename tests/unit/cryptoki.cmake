# Owns the tests of include/cryptoki.h: its packed layout, its agreement with p11-kit's header in the host layout, and
# its being plain C in both.

set(cryptoki_include_dir "${PROJECT_SOURCE_DIR}/include")
set(cryptoki_header "${cryptoki_include_dir}/cryptoki.h")
set(cryptoki_generated_dir "${CMAKE_CURRENT_BINARY_DIR}/cryptoki_generated")

# ---- Names taken from the header, so that the comparison cannot miss an addition ----

set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${cryptoki_header}")

# Only a value may follow the name: this leaves out macros with parameters and CK_PTR.
file(STRINGS "${cryptoki_header}" cryptoki_defines REGEX "^#define CK[A-Z]?_[A-Z0-9_]+ +[(0-9C]")
set(cryptoki_constants "")
foreach(define IN LISTS cryptoki_defines)
    string(REGEX REPLACE "^#define (CK[A-Z]?_[A-Z0-9_]+) .*$" "\\1" name "${define}")
    string(APPEND cryptoki_constants "#ifdef ${name}\nCRYPTOKI_CONSTANT(${name})\n#endif\n")
endforeach()
file(CONFIGURE OUTPUT "${cryptoki_generated_dir}/cryptoki_constants.inc" CONTENT "${cryptoki_constants}" @ONLY)

# Read whole: the continuation backslashes would join the entries of a list of lines.
file(READ "${cryptoki_header}" cryptoki_text)
string(REGEX MATCHALL "apply\\(C_[A-Za-z]+," cryptoki_applications "${cryptoki_text}")
set(cryptoki_functions "")
foreach(application IN LISTS cryptoki_applications)
    string(REGEX REPLACE "^apply\\((C_[A-Za-z]+),$" "\\1" name "${application}")
    string(APPEND cryptoki_functions "CRYPTOKI_FUNCTION(${name})\n")
endforeach()
file(CONFIGURE OUTPUT "${cryptoki_generated_dir}/cryptoki_functions.inc" CONTENT "${cryptoki_functions}" @ONLY)

# ---- The packed layout ----

add_executable(cryptoki_layout_test "${CMAKE_CURRENT_LIST_DIR}/cryptoki_layout_test.cpp")
target_include_directories(cryptoki_layout_test PRIVATE "${cryptoki_include_dir}")
target_link_libraries(cryptoki_layout_test PRIVATE project_options GTest::gtest_main)
gtest_discover_tests(cryptoki_layout_test DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)

# ---- The host layout against p11-kit ----

if(NOT WIN32)
    find_path(P11KIT_PKCS11_INCLUDE_DIR p11-kit/pkcs11.h PATH_SUFFIXES p11-kit-1 REQUIRED)

    add_executable(cryptoki_p11kit_test
        "${CMAKE_CURRENT_LIST_DIR}/cryptoki_p11kit_test.cpp"
        "${CMAKE_CURRENT_LIST_DIR}/cryptoki_tables_own.cpp"
        "${CMAKE_CURRENT_LIST_DIR}/cryptoki_tables_p11kit.cpp")
    target_compile_definitions(cryptoki_p11kit_test PRIVATE CRYPTOKI_HOST_LAYOUT)
    target_include_directories(cryptoki_p11kit_test PRIVATE "${cryptoki_include_dir}" "${cryptoki_generated_dir}")
    target_include_directories(cryptoki_p11kit_test SYSTEM PRIVATE "${P11KIT_PKCS11_INCLUDE_DIR}")
    target_link_libraries(cryptoki_p11kit_test PRIVATE project_options GTest::gtest_main)
    set_target_properties(cryptoki_p11kit_test PROPERTIES UNITY_BUILD OFF) # Two headers of the same names.
    gtest_discover_tests(cryptoki_p11kit_test)
endif()

# ---- C ----

foreach(layout IN ITEMS packed host)
    set(target cryptoki_header_c_${layout})
    add_library(${target} OBJECT "${CMAKE_CURRENT_LIST_DIR}/cryptoki_header_c.c")
    set_target_properties(${target} PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
    target_include_directories(${target} PRIVATE "${cryptoki_include_dir}")
    target_link_libraries(${target} PRIVATE project_options)
    if(CMAKE_C_COMPILER_ID MATCHES "GNU|Clang")
        target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
    endif()
endforeach()
target_compile_definitions(cryptoki_header_c_host PRIVATE CRYPTOKI_HOST_LAYOUT)
