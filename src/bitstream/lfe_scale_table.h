#pragma once
// 7-bit scale factors used by the LFE coder, indices 0..124 (125..127 unused).
#include <array>
#include <cstddef>

namespace tavrin {

inline constexpr std::size_t kLfeScaleCount = 125;
extern const std::array<double, kLfeScaleCount> kLfeScale;

}  // namespace tavrin
