# Windows console programs cross-built with Debian's mingw-w64, for the
# processor the including file names. The posix thread model gives
# GoogleTest its std::mutex; the project links the runtimes statically, so no
# winpthread DLL is needed either way.
set(CMAKE_SYSTEM_NAME Windows)
set(tavrin_mingw ${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32)
set(CMAKE_C_COMPILER ${tavrin_mingw}-gcc-posix)
set(CMAKE_CXX_COMPILER ${tavrin_mingw}-g++-posix)
set(CMAKE_RC_COMPILER ${tavrin_mingw}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${tavrin_mingw})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
