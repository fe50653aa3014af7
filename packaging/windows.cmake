# A zip of what a user of the DLL gets, with the checksums of its files inside, and its own beside it.
install(FILES packaging/windows-readme.txt DESTINATION . RENAME README.txt)
include(packaging/spdx.cmake)
install(FILES ${PROJECT_BINARY_DIR}/velkor.spdx DESTINATION .)
install(SCRIPT packaging/windows_checksums.cmake)

set(ARCHITECTURE ${CMAKE_SYSTEM_PROCESSOR})
if(MSVC) # Which may compile for another processor than it runs on.
    set(ARCHITECTURE ${CMAKE_CXX_COMPILER_ARCHITECTURE_ID})
endif()
string(TOLOWER ${ARCHITECTURE} ARCHITECTURE)
string(REPLACE amd64 x64 ARCHITECTURE ${ARCHITECTURE})
set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME velkor-pkcs11-${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}-windows-${ARCHITECTURE})
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
find_program(WIXL wixl DOC "Makes an installer beside the zip; optional")
mark_as_advanced(WIXL)
if(WIXL AND ARCHITECTURE STREQUAL "x64") # Of our architectures it knows this one alone.
    set(CPACK_WIXL ${WIXL})
    set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/windows_installer.cmake)
endif()
include(CPack)
