#include "app/progress.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>

#include "platform/clock.h"

namespace tavrin {

namespace {

constexpr std::int64_t kThrottleNs = 250'000'000;
constexpr int kCells = 28;
constexpr std::size_t kLabelWidth = 15;

std::string compose_line(std::string_view label, double fraction, double elapsed, bool finished) {
  const double remaining = fraction > 0.000001 ? (1.0 - fraction) * elapsed / fraction : 0.0;
  const int filled = static_cast<int>(fraction * kCells + 0.5);
  std::string line = "\r";
  line += label;
  if (line.size() < kLabelWidth + 1) line.append(kLabelWidth + 1 - line.size(), ' ');
  line += " [";
  for (int i = 0; i < kCells; ++i) line += i < filled ? '#' : '-';
  line += "] ";
  char percent[32];
  std::snprintf(percent, sizeof percent, "%5.1f%%", fraction * 100.0);
  line += percent;
  line += "  elapsed " + clock_text(elapsed);
  line += "  ETA " + (finished ? std::string("00:00:00") : clock_text(remaining));
  return line;
}

}  // namespace

std::string clock_text(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0.0) return "--:--:--";
  const auto whole = static_cast<unsigned long long>(seconds + 0.5);
  char text[48];
  std::snprintf(text, sizeof text, "%02llu:%02llu:%02llu", whole / 3600, whole % 3600 / 60, whole % 60);
  return text;
}

void update_progress_at(ProgressState& s, std::ostream& out, std::string_view label, std::uint64_t done,
                        std::uint64_t total, std::int64_t now) {
  if (s.suppressed || total == 0) return;
  if (label != s.label) {
    close_progress_line(s, out);
    s.label = std::string(label);
    s.phaseStart = now;
    s.lastDraw = 0;
    s.finishedShown = false;
  }
  const bool finished = done >= total;
  if (!finished && s.lastDraw != 0) {
    const std::int64_t since = now - s.lastDraw;
    if (since < kThrottleNs) return;  // a clock that went back counts as too soon
  }
  if (finished && s.finishedShown) return;
  s.lastDraw = now;
  const double fraction = std::clamp(static_cast<double>(done) / static_cast<double>(total), 0.0, 1.0);
  const double elapsed = static_cast<double>(now - s.phaseStart) / 1e9;
  const std::string line = compose_line(label, fraction, elapsed, finished);
  out.write(line.data(), static_cast<std::streamsize>(line.size()));
  out.flush();
  s.lineOpen = true;
  if (finished) {
    out << '\n';
    out.flush();
    s.finishedShown = true;
    s.lineOpen = false;
  }
}

void update_progress(ProgressState& state, std::string_view label, std::uint64_t done, std::uint64_t total) {
  if (state.suppressed || total == 0) return;
  update_progress_at(state, std::cout, label, done, total, monotonic_ns());
}

void close_progress_line(ProgressState& state, std::ostream& out) {
  if (!state.lineOpen) return;
  out << '\n';
  out.flush();
  state.lineOpen = false;
}

}  // namespace tavrin
