// The progress line, driven by a clock the test holds.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "app/progress.h"

namespace tavrin {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

std::string line(const std::string& label, int filled, const std::string& percent, const std::string& elapsed,
                 const std::string& eta) {
  std::ostringstream text;
  text << '\r' << label << std::string(label.size() < 15 ? 15 - label.size() : 0, ' ') << " ["
       << std::string(filled, '#') << std::string(28 - filled, '-') << "] " << percent << "%  elapsed " << elapsed
       << "  ETA " << eta;
  return text.str();
}

struct Step {
  const char* label;
  std::uint64_t done, total;
  std::int64_t at;       // clock reading
  std::string expected;  // what this update writes
};

void run_steps(ProgressState& state, const std::vector<Step>& steps) {
  for (const Step& s : steps) {
    std::ostringstream out;
    update_progress_at(state, out, s.label, s.done, s.total, s.at);
    EXPECT_EQ(out.str(), s.expected) << s.label << " " << s.done << "/" << s.total << " at " << s.at;
  }
}

TEST(Progress, DrawsThrottlesFinishesAndChangesPhase) {
  ProgressState state;
  const std::int64_t t0 = 100 * kSecond;
  run_steps(state, {
      {"Matrix analysis", 0, 100, t0, line("Matrix analysis", 0, "  0.0", "00:00:00", "00:00:00")},
      // 100 ms later: too soon.
      {"Matrix analysis", 10, 100, t0 + kSecond / 10, ""},
      {"Matrix analysis", 50, 100, t0 + 12 * kSecond, line("Matrix analysis", 14, " 50.0", "00:00:12", "00:00:12")},
      {"Matrix analysis", 51, 100, t0 + 12 * kSecond + kSecond / 4 - 1, ""},
      // A clock that went back never draws.
      {"Matrix analysis", 52, 100, t0, ""},
      // Finishing is drawn at once, and only once.
      {"Matrix analysis", 100, 100, t0 + 12 * kSecond + 1, line("Matrix analysis", 28, "100.0", "00:00:12", "00:00:00") + "\n"},
      {"Matrix analysis", 100, 100, t0 + 20 * kSecond, ""},
      // A new phase restarts the clock.
      {"Encoding", 1, 4, t0 + 30 * kSecond, line("Encoding", 7, " 25.0", "00:00:00", "00:00:00")},
      {"Encoding", 2, 4, t0 + 32 * kSecond, line("Encoding", 14, " 50.0", "00:00:02", "00:00:02")},
      // Changing the label mid-line ends the open line first.
      {"Bass analysis", 3, 4, t0 + 33 * kSecond, line("Bass analysis", 21, " 75.0", "00:00:00", "00:00:00").insert(0, 1, '\n')},
      // More than the total counts as finished.
      {"Bass analysis", 9, 4, t0 + 35 * kSecond, line("Bass analysis", 28, "100.0", "00:00:02", "00:00:00") + "\n"},
  });
  EXPECT_FALSE(state.lineOpen);
}

// Quiet or with no total, nothing is drawn; an open line is closed once at
// the end, a closed one not again.
TEST(Progress, QuietEmptyTotalsAndTheLastNewline) {
  ProgressState quiet, unknown, open;
  quiet.suppressed = true;
  run_steps(quiet, {{"Encoding", 5, 10, kSecond, ""}, {"Encoding", 10, 10, 2 * kSecond, ""}});
  run_steps(unknown, {{"Encoding", 5, 0, kSecond, ""}, {"Encoding", 0, 0, 2 * kSecond, ""}});
  EXPECT_FALSE(unknown.lineOpen);
  run_steps(open, {{"Encoding", 1, 3, kSecond, line("Encoding", 9, " 33.3", "00:00:00", "00:00:00")}});
  for (ProgressState* state : {&quiet, &open}) {
    std::ostringstream out;
    close_progress_line(*state, out);
    close_progress_line(*state, out);
    EXPECT_EQ(out.str(), state == &open ? "\n" : "");
  }
}

TEST(Progress, ClockText) {
  const std::vector<std::pair<double, std::string>> cases = {
      {0.0, "00:00:00"},     {0.49, "00:00:00"},        {0.5, "00:00:01"},       {187.0, "00:03:07"},
      {359999.4, "99:59:59"}, {360000.0, "100:00:00"},  {-0.1, "--:--:--"},      {INFINITY, "--:--:--"},
      {std::nan(""), "--:--:--"},
  };
  for (const auto& [seconds, text] : cases) EXPECT_EQ(clock_text(seconds), text) << seconds;
}

}  // namespace
}  // namespace tavrin
