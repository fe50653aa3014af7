# A stand-in that the module is linked with where no device library is at hand: it has the 29 operations of the contract
# and the name of a real one, in whose place nobody is to load it.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/velkor/device_service.h)
file(READ ${PROJECT_SOURCE_DIR}/include/velkor/device_service.h CONTRACT)
string(REPLACE ";" "@" CONTRACT "${CONTRACT}") # Which would part the entries of a list.
string(REGEX MATCHALL "VELKOR_DEVICE_OPERATION [^@{}]*velkor_[^@{}]*@" OPERATIONS "${CONTRACT}")
list(LENGTH OPERATIONS COUNT)
if(NOT COUNT EQUAL 29)
    message(FATAL_ERROR "${COUNT} operations instead of 29 in include/velkor/device_service.h")
endif()
list(JOIN OPERATIONS "\n" OPERATIONS)
string(REPLACE "@" "\n{\n    std::abort();\n}" OPERATIONS "${OPERATIONS}")
file(CONFIGURE OUTPUT device_stub.cpp @ONLY CONTENT
     "#include <cstdlib>\n\n#include \"velkor/device_service.h\"\n\n@OPERATIONS@\n")
add_library(device_stub SHARED ${CMAKE_CURRENT_BINARY_DIR}/device_stub.cpp)
set_target_properties(device_stub PROPERTIES OUTPUT_NAME VelkorDSCLibrary
                                             LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/device_stub
                                             RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/device_stub)
target_link_libraries(device_stub PRIVATE device_interface)
if(WIN32)
    set_target_properties(device_stub PROPERTIES PREFIX "")
    target_compile_definitions(device_stub PRIVATE "VELKOR_DEVICE_OPERATION=__declspec(dllexport)")
endif()
