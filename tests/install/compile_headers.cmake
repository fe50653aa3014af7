# Compiles each header of the install tree TREE alone, with the compilers CXX and C.
set(WARNINGS -Wall -Wextra -Wpedantic -Werror -fsyntax-only)
file(GLOB_RECURSE HEADERS RELATIVE ${TREE}/include ${TREE}/include/*.h)
if(NOT HEADERS)
    message(FATAL_ERROR "No headers below ${TREE}")
endif()

# Compiles the line that includes HEADER, with the options that follow.
function(compile HEADER SUFFIX)
    set(SOURCE ${TREE}/alone.${SUFFIX})
    file(WRITE ${SOURCE} "#include <${HEADER}>\n")
    execute_process(COMMAND ${ARGN} ${WARNINGS} -I ${TREE}/include ${SOURCE} RESULT_VARIABLE FAILED)
    file(REMOVE ${SOURCE})
    if(FAILED)
        message(SEND_ERROR "${HEADER} does not stand alone")
    endif()
endfunction()

foreach(HEADER IN LISTS HEADERS)
    compile(${HEADER} cpp ${CXX} -std=c++20)
endforeach()
foreach(LAYOUT IN ITEMS "" -DCRYPTOKI_HOST_LAYOUT)
    compile(velkor/cryptoki.h c ${C} -std=c11 ${LAYOUT})
endforeach()
