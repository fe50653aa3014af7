# Writes SHA256SUMS over everything that has been installed, in the form that sha256sum --check reads.
file(GLOB_RECURSE FILES LIST_DIRECTORIES OFF RELATIVE ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_PREFIX}/*)
list(REMOVE_ITEM FILES SHA256SUMS)
foreach(FILE IN LISTS FILES)
    file(SHA256 ${CMAKE_INSTALL_PREFIX}/${FILE} SUM)
    string(APPEND SUMS "${SUM}  ${FILE}\n")
endforeach()
file(WRITE ${CMAKE_INSTALL_PREFIX}/SHA256SUMS "${SUMS}")
