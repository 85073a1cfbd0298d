#pragma once
// The self-overwriting status line of the long encode paths: phase label,
// a 28-cell bar, percentage, elapsed time and the time still to go.
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

namespace tavrin {

struct ProgressState {
  bool suppressed = false;
  bool lineOpen = false;
  bool finishedShown = false;
  std::string label;
  std::int64_t phaseStart = 0;
  std::int64_t lastDraw = 0;
};

inline constexpr std::string_view kEncodingLabel = "Encoding";

// Draws at most one line per 250 ms per phase, plus the finished line once
// per phase; a new label closes the open line and restarts the clock. Reads
// the monotonic clock and writes to standard output.
void update_progress(ProgressState& state, std::string_view label, std::uint64_t done, std::uint64_t total);

// The same with the clock reading and the output given, for tests.
void update_progress_at(ProgressState& state, std::ostream& out, std::string_view label, std::uint64_t done,
                        std::uint64_t total, std::int64_t now_ns);

// "hh:mm:ss" (hours widen past 99), "--:--:--" for a negative or non-finite
// value.
std::string clock_text(double seconds);

// Ends a line the run left open.
void close_progress_line(ProgressState& state, std::ostream& out);

}  // namespace tavrin
