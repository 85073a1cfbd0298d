#pragma once
// The LFE's way to its 64:1 pick. Picking every 64th sample with nothing in
// front of it folds everything above the decimated band's edge (375 Hz at
// 48 kHz) down into the bass, and a decoder returns the picked samples 256
// samples after their input, 224 ahead of the main channels. A linear-phase
// low-pass in front of the pick removes the first and, with its group delay
// of exactly those 224 samples, the second; its DC gain makes up the level
// the decoder's LFE interpolation loses.
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace tavrin {

inline constexpr std::size_t kLfeFilterTaps = 449;  // group delay 224 samples
inline constexpr std::size_t kLfeDecimation = 64;
inline constexpr std::size_t kLfeFrameSamples = 1024;
inline constexpr std::size_t kLfePicksPerFrame = kLfeFrameSamples / kLfeDecimation;

// Per stream: the taps, and the input the next frame's picks still reach
// back into. The history carries across frames.
struct LfeFilter {
  std::vector<double> taps;     // kLfeFilterTaps, symmetric
  std::vector<double> history;  // the kLfeFilterTaps - 1 samples before this frame, then the frame
};

// The filter for a stream at `sample_rate`, with an empty (silent) history.
LfeFilter make_lfe_filter(std::uint32_t sample_rate);

// Filters one frame of 1024 LFE samples and returns the filtered signal at
// the frame's sample positions 0, 64, ..., 960. Only the picked outputs are
// computed.
std::array<double, kLfePicksPerFrame> filter_and_pick_lfe(LfeFilter& filter, const double* frame);

}  // namespace tavrin
