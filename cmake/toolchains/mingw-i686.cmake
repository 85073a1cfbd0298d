# 32-bit Windows. The compiler's i686
# baseline assumes no SSE2; the vector kernels carry their own target
# attributes and run only when the processor offers them.
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/mingw.cmake)
