# velkor.spdx: what is linked into the built files, in the form that those who look for it read.
string(TIMESTAMP CREATED %Y-%m-%dT%H:%M:%SZ UTC) # Of the source, where SOURCE_DATE_EPOCH says so.
set(SPDX "SPDXVersion: SPDX-2.3
DataLicense: CC0-1.0
SPDXID: SPDXRef-DOCUMENT
DocumentName: velkor-pkcs11-${PROJECT_VERSION}
DocumentNamespace: https://spdx.org/spdxdocs/velkor-pkcs11-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR}
Creator: Organization: the maintainers of velkor-pkcs11
Created: ${CREATED}
")

# add_spdx_package(ID NAME VERSION LICENSE [COMMENT])
function(add_spdx_package ID NAME VERSION LICENSE)
    string(APPEND SPDX "
PackageName: ${NAME}
SPDXID: SPDXRef-${ID}
PackageVersion: ${VERSION}
PackageDownloadLocation: NOASSERTION
FilesAnalyzed: false
PackageLicenseConcluded: ${LICENSE}
PackageLicenseDeclared: ${LICENSE}
PackageCopyrightText: NOASSERTION
")
    if(ARGN)
        string(APPEND SPDX "PackageComment: ${ARGN}\n")
    endif()
    set(SPDX "${SPDX}" PARENT_SCOPE)
endfunction()

# add_spdx_links(ID KIND PART...): what is linked into a package that was added before, static or dynamic.
function(add_spdx_links ID KIND)
    foreach(PART IN LISTS ARGN)
        string(APPEND SPDX "Relationship: SPDXRef-${ID} ${KIND} SPDXRef-${PART}\n")
    endforeach()
    set(SPDX "${SPDX}" PARENT_SCOPE)
endfunction()

set(RUNTIME)
if(WIN32) # Where the compiler's runtime is no library of the system's.
    set(RUNTIME runtime)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        add_spdx_package(runtime "libstdc++, libgcc and winpthreads" "${CMAKE_CXX_COMPILER_VERSION}"
                         "GPL-3.0-or-later WITH GCC-exception-3.1 AND MIT")
    elseif(MSVC)
        add_spdx_package(runtime "C and C++ runtime of the compiler" "${CMAKE_CXX_COMPILER_VERSION}" NOASSERTION)
    else()
        add_spdx_package(runtime "libc++, libc++abi and libunwind" "${CMAKE_CXX_COMPILER_VERSION}"
                         "Apache-2.0 WITH LLVM-exception")
    endif()
endif()

add_spdx_package(modules velkor-pkcs11 ${PROJECT_VERSION} NOASSERTION "the module and the strict front")
add_spdx_links(DOCUMENT DESCRIBES modules)
add_spdx_links(modules STATIC_LINK ${RUNTIME})
if(VELKOR_BUILD_SOFTKEY OR VELKOR_BUILD_TRACE)
    find_package(CLI11 REQUIRED)
    find_package(nlohmann_json REQUIRED)
    add_spdx_package(CLI11 CLI11 "${CLI11_VERSION}" BSD-3-Clause "headers alone")
    add_spdx_package(json "JSON for Modern C++" "${nlohmann_json_VERSION}" MIT "headers alone")
endif()
if(VELKOR_BUILD_TRACE)
    add_spdx_package(trace velkor-trace ${PROJECT_VERSION} NOASSERTION "the reader of the log")
    add_spdx_links(DOCUMENT DESCRIBES trace)
    add_spdx_links(trace STATIC_LINK CLI11 json ${RUNTIME})
endif()
if(VELKOR_BUILD_SOFTKEY)
    find_package(OpenSSL REQUIRED COMPONENTS Crypto)
    find_package(SQLite3 REQUIRED)
    add_spdx_package(OpenSSL OpenSSL "${OPENSSL_VERSION}" Apache-2.0 "libcrypto alone")
    add_spdx_package(SQLite SQLite "${SQLite3_VERSION}" blessing)
    add_spdx_package(softkey velkor-softkey ${PROJECT_VERSION} NOASSERTION "the software key and its tool")
    add_spdx_links(DOCUMENT DESCRIBES softkey)
    add_spdx_links(softkey STATIC_LINK CLI11 json ${RUNTIME})
    add_spdx_links(softkey $<IF:$<BOOL:${VELKOR_STATIC_LIBCRYPTO}>,STATIC_LINK,DYNAMIC_LINK> OpenSSL)
    add_spdx_links(softkey $<IF:$<BOOL:${VELKOR_STATIC_SQLITE}>,STATIC_LINK,DYNAMIC_LINK> SQLite)
endif()
file(GENERATE OUTPUT velkor.spdx CONTENT "${SPDX}")
