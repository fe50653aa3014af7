# Cross-compiles for Windows on ARM64 with the compiler that scripts/setup-windows.sh installs, and runs it under an
# emulated Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR ARM64)

include(${CMAKE_CURRENT_LIST_DIR}/windows-tools.cmake)
set(COMMANDS ${VELKOR_WINDOWS_TOOLS}/bin/aarch64-windows-gnu-)
set(CMAKE_C_COMPILER ${COMMANDS}clang)
set(CMAKE_CXX_COMPILER ${COMMANDS}clang++)
set(CMAKE_AR ${COMMANDS}ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${COMMANDS}ranlib CACHE FILEPATH "")
set(CMAKE_RC_COMPILER ${COMMANDS}rc)
set(CMAKE_RC_COMPILE_OBJECT "<CMAKE_RC_COMPILER> /fo <OBJECT> -- <SOURCE>")
set(CMAKE_RC_OUTPUT_EXTENSION .res)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

# The emulated C runtime crashes in its own printf; nothing is checked at run time that the x86-64 build does not check;
# the headers of the standard library say only in places which pointers may be null.
set(FLAGS "-D__USE_MINGW_ANSI_STDIO=1 -fno-sanitize=undefined -Wno-nullability-completeness")
set(CMAKE_C_FLAGS_INIT "${FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "${FLAGS}")

set(CMAKE_FIND_ROOT_PATH ${VELKOR_WINDOWS_TOOLS}/libraries-arm64)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine.sh arm64)
