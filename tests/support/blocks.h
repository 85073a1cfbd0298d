#pragma once
// Subband frames as the encoders take them: one pointer per channel block.
#include <vector>

namespace tavrin::test {

inline std::vector<const double*> views(const std::vector<std::vector<double>>& blocks) {
  std::vector<const double*> out;
  for (const auto& b : blocks) out.push_back(b.data());
  return out;
}

}  // namespace tavrin::test
