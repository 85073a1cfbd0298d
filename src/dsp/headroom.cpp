#include "dsp/headroom.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace tavrin {

namespace {

constexpr std::size_t kSlots = kQmfBlocksPerFrame;  // 32 samples each
// Going into a slot that needs less gain, the gain falls by at most 1 dB a
// slot, starting as early in the frame as that takes: no step unless the
// frame's first slot already needs one.
const double kAttackPerSlot = std::pow(10.0, 1.0 / 20.0);
// The gain is held for 128 slots (85 ms, longer than the period of any
// tone above 12 Hz) after it last had to fall, so that a steady signal
// gets a steady gain rather than a ripple at its own period; then it
// recovers by 0.25 dB a frame (12 dB a second).
constexpr unsigned kHoldSlots = 128;
// A slot whose own limit lies within 0.5 dB above the gain renews the hold.
const double kStillNeeded = std::pow(10.0, 0.5 / 20.0);
const double kReleasePerSlot = std::pow(10.0, 0.25 / 20.0 / static_cast<double>(kSlots));

// The gain each slot may have at most: the limit over its peak.
std::array<double, kSlots> needed_gains(const std::vector<SubbandBlock>& channels) {
  std::array<double, kSlots> need{};
  for (std::size_t s = 0; s < kSlots; ++s) {
    double peak = 0.0;
    for (const SubbandBlock& c : channels)
      for (std::size_t b = 0; b < kQmfBands; ++b) peak = std::max(peak, std::fabs(c.samples[s * kQmfBands + b]));
    need[s] = peak > kHeadroomLimit ? kHeadroomLimit / peak : 1.0;
  }
  return need;
}

}  // namespace

bool apply_headroom(HeadroomState& state, std::vector<SubbandBlock>& channels, double* lfe) {
  std::array<double, kSlots> gains = needed_gains(channels);
  if (state.gain == 1.0 && std::all_of(gains.begin(), gains.end(), [](double g) { return g == 1.0; })) return false;
  for (std::size_t s = kSlots - 1; s-- > 0;) gains[s] = std::min(gains[s], gains[s + 1] * kAttackPerSlot);
  double g = state.gain;
  for (std::size_t s = 0; s < kSlots; ++s) {
    if (gains[s] < g * kStillNeeded) {
      // Lower, or close enough that the signal still presses on the limit.
      g = std::min(g, gains[s]);
      state.hold = kHoldSlots;
    } else if (state.hold > 0) {
      --state.hold;
    } else {
      g = std::min({g * kReleasePerSlot, gains[s], 1.0});
    }
    gains[s] = g;
  }
  state.gain = g;
  for (SubbandBlock& c : channels)
    for (std::size_t s = 0; s < kSlots; ++s)
      for (std::size_t b = 0; b < kQmfBands; ++b) c.samples[s * kQmfBands + b] *= gains[s];
  if (lfe != nullptr)
    for (std::size_t s = 0; s < kSlots; ++s)
      for (std::size_t i = 0; i < kQmfBands; ++i) lfe[s * kQmfBands + i] *= gains[s];
  ++state.frames_lowered;
  state.least_gain = std::min(state.least_gain, *std::min_element(gains.begin(), gains.end()));
  return true;
}

}  // namespace tavrin
