# Cross build of the station PC's programs for 64-bit Windows with Debian's
# MinGW-w64 (g++-mingw-w64-x86-64-posix: the posix flavour, for std::thread).
# Programs are linked statically, so an .exe needs no MinGW DLL beside it.
#
# Programs built here run under Wine, in a prefix of the build tree's own
# (cmake/wine-run.sh starts its server and warms it once). The Linux
# headers in /usr/include never come on MinGW's path: the header-only
# libraries come through a folder that holds just their headers.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh ${CMAKE_BINARY_DIR}/wine)
