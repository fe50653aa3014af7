# What others need beside the libraries, on the systems that have a place for it.

# Whoever asks p11-kit for modules holds the standard to its letter, so it is told of the strict front: by a full path,
# which is known when it is installed.
install(CODE "file(WRITE \"${PROJECT_BINARY_DIR}/velkor.module\"
    \"module: \${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/velkor/velkor-pkcs11-strict.so\\n\")" COMPONENT module)
install(FILES ${PROJECT_BINARY_DIR}/velkor.module DESTINATION ${CMAKE_INSTALL_DATADIR}/p11-kit/modules COMPONENT module)
