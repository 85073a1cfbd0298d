#pragma once
// The monotonic clock and the console facts the progress line needs.
#include <cstdint>

namespace tavrin {

// Nanoseconds since an arbitrary fixed point; never goes back.
std::int64_t monotonic_ns();

// True when standard output is an interactive terminal (a console window),
// false for a file, a pipe or /dev/null.
bool standard_output_is_terminal();

}  // namespace tavrin
