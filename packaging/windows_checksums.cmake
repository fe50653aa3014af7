# Writes SHA256SUMS over everything that this run has installed, in the form that sha256sum --check reads.
set(ROOT $ENV{DESTDIR}${CMAKE_INSTALL_PREFIX})
foreach(FILE IN LISTS CMAKE_INSTALL_MANIFEST_FILES)
    file(SHA256 $ENV{DESTDIR}${FILE} SUM)
    file(RELATIVE_PATH FILE ${CMAKE_INSTALL_PREFIX} ${FILE})
    string(APPEND SUMS "${SUM}  ${FILE}\n")
endforeach()
file(WRITE ${ROOT}/SHA256SUMS "${SUMS}")
