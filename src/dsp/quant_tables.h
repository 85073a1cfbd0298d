#pragma once
// Quantization tables of the DTS Core format, compiled in so that the program
// needs no data files at run time.
#include <array>
#include <cstddef>

namespace tavrin {

// 6-bit scale factors, indices 0..62, plus a 64th slot of 0.0 that no lookup
// may select (index 63 is invalid in the format).
inline constexpr std::size_t kScaleFactor6Count = 63;
extern const std::array<double, 64> kScaleFactor6;

// Lossy step sizes for ABITS 0..26: 22-bit fixed-point values over 2^22.
inline constexpr std::size_t kStepSizeCount = 27;
extern const std::array<double, kStepSizeCount> kStepSize;

}  // namespace tavrin
