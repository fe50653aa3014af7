# The Debian packages, one for each component of the installation: cpack --config CPackConfig.cmake, in a build folder
# that was configured for /usr. scripts/packages.sh makes and tries them.
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/changelog NEWEST LIMIT_COUNT 1)
if(NOT NEWEST MATCHES "\\(${PROJECT_VERSION}-")
    message(FATAL_ERROR "packaging/debian/changelog begins with another version than ${PROJECT_VERSION}: ${NEWEST}")
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL module softkey dev)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The Velkor PKCS #11 maintainers <maintainers@users.noreply.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # Else it would come before each package's own.
set(CPACK_SET_DESTDIR ON) # One file is for /etc.
set(CPACK_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/finish_tree.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE velkor-pkcs11)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/softkey)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_MODULE_PACKAGE_NAME velkor-pkcs11)
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_MODULE_PACKAGE_DEPENDS "velkor-softkey (>= ${PROJECT_VERSION}) | velkor-device-library")
set(CPACK_DEBIAN_MODULE_PACKAGE_SUGGESTS "p11-kit, opensc")
set(CPACK_DEBIAN_MODULE_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/conffiles)
set(CPACK_COMPONENT_MODULE_DESCRIPTION "PKCS #11 modules for Velkor keys
The shared libraries that browsers, document signers and certificate tools
load to use the keys of the Velkor family through Cryptoki (PKCS #11 v2.20),
their registration with p11-kit, and velkor-trace, which says in words what
is in the modules' log.")

set(CPACK_DEBIAN_SOFTKEY_PACKAGE_NAME velkor-softkey)
set(CPACK_DEBIAN_SOFTKEY_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_SOFTKEY_PACKAGE_PROVIDES velkor-device-library)
set(CPACK_DEBIAN_SOFTKEY_PACKAGE_CONFLICTS velkor-device-library)
set(CPACK_DEBIAN_SOFTKEY_PACKAGE_REPLACES velkor-device-library)
set(CPACK_DEBIAN_SOFTKEY_PACKAGE_RECOMMENDS velkor-pkcs11)
set(CPACK_COMPONENT_SOFTKEY_DESCRIPTION "software key for the Velkor PKCS #11 modules
A device library that keeps keys and certificates in encrypted files instead
of hardware, and velkor-softkey, the tool that makes such keys and manages
what is on them.")

# Its CMake package names the folder of the modules, which is that of one architecture.
set(CPACK_DEBIAN_DEV_PACKAGE_NAME velkor-pkcs11-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_PACKAGE_RECOMMENDS velkor-pkcs11)
set(CPACK_COMPONENT_DEV_DESCRIPTION "headers of the Velkor PKCS #11 modules
What a program that loads the modules is compiled against, and what a device
library is compiled against, with a CMake package and an example.")

# What Debian wants beside each package's files. Of the libraries that are linked in, their own terms.
set(TERMS_OF_DEV ${CMAKE_CURRENT_LIST_DIR}/copyright)
set(TERMS_OF_MODULE ${PROJECT_BINARY_DIR}/debian/copyright)
set(TERMS_OF_SOFTKEY ${TERMS_OF_MODULE})
file(READ ${TERMS_OF_DEV} TERMS)
foreach(PACKAGE IN ITEMS libssl-dev libsqlite3-dev libcli11-dev nlohmann-json3-dev)
    if(EXISTS /usr/share/doc/${PACKAGE}/copyright)
        file(READ /usr/share/doc/${PACKAGE}/copyright THEIRS)
        string(APPEND TERMS "\n\nOf ${PACKAGE}, parts of which are linked in:\n\n${THEIRS}")
    endif()
endforeach()
file(WRITE ${TERMS_OF_MODULE} "${TERMS}")
foreach(COMPONENT IN ITEMS MODULE SOFTKEY DEV)
    string(TOLOWER ${COMPONENT} LOWER)
    set(DOC ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME})
    install(FILES ${TERMS_OF_${COMPONENT}} DESTINATION ${DOC} RENAME copyright COMPONENT ${LOWER})
    install(FILES ${CMAKE_CURRENT_LIST_DIR}/changelog DESTINATION ${DOC} RENAME changelog.Debian COMPONENT ${LOWER})
endforeach()
include(CPack)
