# Fails when two files below FOLDER define a class, structure or enumeration of one name, or use one name for a test
# suite that is not a fixture of a header, or one name for a test. googletest knows suites by name only: two fixtures of
# one name in a program crash it, and outside an anonymous namespace the linker silently keeps one of the two. What is
# defined inside another class is left out: it has that one's name in front.
#     cmake -D FOLDER=... [-D STAMP=...] -P check_names.cmake
cmake_minimum_required(VERSION 3.25)

set(TYPE "(class|struct|union|enum class|enum) ([A-Z_]+ )?([A-Za-z0-9_]+)( [^;\n{]*)?[\n{]")
set(TEST "(TEST|TEST_F|TEST_P|TYPED_TEST)\\(([A-Za-z0-9_]+),[ \n]*([A-Za-z0-9_]+)\\)")
set(MISTAKES "")

# Notes that FILE has NAME, and says so when another file has it too.
macro(note KIND NAME FILE)
    if(DEFINED ${KIND}.${NAME} AND NOT "${${KIND}.${NAME}}" STREQUAL "${FILE}")
        string(APPEND MISTAKES "  ${KIND} ${NAME}: ${${KIND}.${NAME}} and ${FILE}\n")
    endif()
    set(${KIND}.${NAME} ${FILE})
endmacro()

file(GLOB_RECURSE FILES RELATIVE ${FOLDER} ${FOLDER}/*.h ${FOLDER}/*.inc ${FOLDER}/*.cpp)
foreach(FILE IN LISTS FILES)
    file(READ ${FOLDER}/${FILE} TEXT)
    string(REGEX MATCHALL "\n${TYPE}" TYPES "${TEXT}")
    foreach(DEFINITION IN LISTS TYPES)
        string(REGEX MATCH "${TYPE}" DEFINITION "${DEFINITION}")
        set(NAME ${CMAKE_MATCH_3})
        note(type ${NAME} ${FILE})
        if(FILE MATCHES "\\.h$")
            set(SHARED_${NAME} ON)
        endif()
    endforeach()
endforeach()
foreach(FILE IN LISTS FILES)
    file(READ ${FOLDER}/${FILE} TEXT)
    string(REGEX MATCHALL "\n${TEST}" TESTS "${TEXT}")
    foreach(DEFINITION IN LISTS TESTS)
        string(REGEX MATCH "${TEST}" DEFINITION "${DEFINITION}")
        set(SUITE ${CMAKE_MATCH_2})
        note(test ${SUITE}.${CMAKE_MATCH_3} ${FILE})
        if(NOT SHARED_${SUITE})
            note(suite ${SUITE} ${FILE})
        endif()
    endforeach()
endforeach()

if(NOT FILES)
    message(FATAL_ERROR "No files below ${FOLDER}")
endif()
if(MISTAKES)
    message(FATAL_ERROR "Two files of the tests use one name:\n${MISTAKES}")
endif()
if(STAMP)
    file(TOUCH ${STAMP})
endif()
