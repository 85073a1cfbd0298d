#include "platform/clock.h"

#ifdef _WIN32
#include "platform/windows_api.h"
#else
#include <time.h>
#include <unistd.h>
#endif

namespace tavrin {

#ifdef _WIN32

std::int64_t monotonic_ns() {
  static const std::int64_t frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return static_cast<std::int64_t>(f.QuadPart);
  }();
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  // Split so that the multiplication cannot overflow for long uptimes.
  const std::int64_t ticks = now.QuadPart;
  return ticks / frequency * 1'000'000'000 + ticks % frequency * 1'000'000'000 / frequency;
}

// _isatty also says yes for the NUL device; only a console has a console mode.
bool standard_output_is_terminal() {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != 0;
}

#else

std::int64_t monotonic_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

bool standard_output_is_terminal() { return isatty(STDOUT_FILENO) == 1; }

#endif

}  // namespace tavrin
