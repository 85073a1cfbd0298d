#pragma once
// The format's ADPCM predictor-coefficient table: 4096 entries (PVQ 0..4095)
// of four Q13 coefficients; coefficient k multiplies the sample k + 1 places
// back.
#include <array>
#include <cstddef>
#include <cstdint>

namespace tavrin {

inline constexpr std::size_t kAdpcmVqEntries = 4096;
extern const std::array<std::array<std::int16_t, 4>, kAdpcmVqEntries> kAdpcmVq;

}  // namespace tavrin
