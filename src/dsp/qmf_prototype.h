#pragma once
// The decoder's 512-tap perfect-reconstruction interpolation FIR, from which
// the analysis bank is derived at start-up.
#include <array>
#include <cstddef>

namespace tavrin {

inline constexpr std::size_t kQmfPrototypeTaps = 512;

const std::array<double, kQmfPrototypeTaps>& qmf_perfect_prototype();

}  // namespace tavrin
