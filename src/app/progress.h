#pragma once
// The self-overwriting status line of the long encode paths.
#include <cstdint>
#include <string>

namespace tavrin {

struct ProgressState {
  bool suppressed = false;
  bool lineOpen = false;
  bool finishedShown = false;
  std::string label;
  std::int64_t phaseStart = 0;
  std::int64_t lastDraw = 0;
};

}  // namespace tavrin
