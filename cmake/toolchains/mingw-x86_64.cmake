# 64-bit Windows console program, cross-built with Debian's mingw-w64. The
# posix thread model gives GoogleTest its std::mutex; the project links it
# statically, so no winpthread DLL is needed either way.
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
# ctest runs the test programs through wine when it is there.
find_program(TAVRIN_WINE64 wine64 PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(TAVRIN_WINE64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVRIN_WINE64})
endif()
