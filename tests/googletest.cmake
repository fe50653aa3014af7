# GoogleTest: the system's, or for a system that it is not installed for, built from Debian's copy of its sources.
if(NOT CMAKE_CROSSCOMPILING)
    find_package(GTest REQUIRED)
    return()
endif()
set(VELKOR_GOOGLETEST_SOURCES /usr/src/googletest CACHE PATH "Sources of GoogleTest for the cross compilers")
set(INSTALL_GTEST OFF)
add_subdirectory(${VELKOR_GOOGLETEST_SOURCES} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
foreach(LIBRARY IN ITEMS gtest gmock)
    get_target_property(FOLDERS ${LIBRARY} INTERFACE_INCLUDE_DIRECTORIES)
    set_target_properties(${LIBRARY} PROPERTIES INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${FOLDERS}")
endforeach()
# Its tests are found by running them, which wants Wine: not before they are run.
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)
