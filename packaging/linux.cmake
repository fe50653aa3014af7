# What others need beside the libraries, on the systems that have a place for it.

# Whoever asks p11-kit for modules holds the standard to its letter, so it is told of the strict front, and so is what
# systemd may start: by a full path, which is known when it is installed.
set(P11_KIT_SERVICE packaging/p11-kit/velkor-p11-kit@.service)
install(CODE "set(LIBRARIES \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/velkor\")
    file(WRITE \"${PROJECT_BINARY_DIR}/velkor.module\" \"module: \${LIBRARIES}/velkor-pkcs11-strict.so\\n\")
    configure_file(\"${PROJECT_SOURCE_DIR}/${P11_KIT_SERVICE}.in\" \"${PROJECT_BINARY_DIR}/${P11_KIT_SERVICE}\" @ONLY)"
        COMPONENT module)
install(FILES ${PROJECT_BINARY_DIR}/velkor.module DESTINATION ${CMAKE_INSTALL_DATADIR}/p11-kit/modules COMPONENT module)

# What a host is compiled with, and where the modules are: for pkg-config, found from the file itself, so that the tree
# may be moved.
set(PKGCONFIG_FOLDER ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH TO_PREFIX /${PKGCONFIG_FOLDER} /)
configure_file(packaging/velkor-pkcs11.pc.in velkor-pkcs11.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velkor-pkcs11.pc DESTINATION ${PKGCONFIG_FOLDER} COMPONENT module)

# The same for CMake, and what a device library is compiled with.
include(CMakePackageConfigHelpers)
set(PACKAGE_FOLDER ${CMAKE_INSTALL_LIBDIR}/cmake/velkor-pkcs11)
add_library(cryptoki INTERFACE)
target_include_directories(cryptoki INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/velkor>
                                              $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_compile_definitions(cryptoki INTERFACE CRYPTOKI_HOST_LAYOUT)
set_target_properties(device_interface PROPERTIES EXPORT_NAME device)
install(TARGETS cryptoki device_interface EXPORT velkor-pkcs11-targets)
install(EXPORT velkor-pkcs11-targets NAMESPACE velkor:: DESTINATION ${PACKAGE_FOLDER} COMPONENT dev)
configure_package_config_file(packaging/velkor-pkcs11-config.cmake.in velkor-pkcs11-config.cmake
    INSTALL_DESTINATION ${PACKAGE_FOLDER} PATH_VARS CMAKE_INSTALL_LIBDIR NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(velkor-pkcs11-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/velkor-pkcs11-config.cmake ${PROJECT_BINARY_DIR}/velkor-pkcs11-config-version.cmake
        DESTINATION ${PACKAGE_FOLDER} COMPONENT dev)
install(DIRECTORY examples/empty_device DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velkor-pkcs11-dev/examples
        COMPONENT dev)

# The module reads one fixed file: what is not installed for the whole system leaves it alone.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    install(FILES packaging/velkor.conf DESTINATION /etc/brenmoor COMPONENT module)
endif()
install(FILES packaging/velkor.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT module)
install(FILES packaging/p11-kit/velkor-p11-kit.socket ${PROJECT_BINARY_DIR}/${P11_KIT_SERVICE}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velkor-pkcs11/examples COMPONENT module)
install(FILES packaging/velkor-pkcs11.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT module)

include(packaging/spdx.cmake)
install(FILES ${PROJECT_BINARY_DIR}/velkor.spdx DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velkor-pkcs11 COMPONENT module)
if(VELKOR_BUILD_SOFTKEY)
    install(FILES ${PROJECT_BINARY_DIR}/velkor.spdx DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velkor-softkey
            COMPONENT softkey)
endif()

if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND VELKOR_BUILD_SOFTKEY AND VELKOR_BUILD_TRACE)
    include(packaging/debian/packages.cmake)
endif()
