# 64-bit Windows.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/mingw.cmake)
# ctest runs the test programs through wine when it is there.
find_program(TAVRIN_WINE64 wine64 PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(TAVRIN_WINE64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVRIN_WINE64})
endif()
