#pragma once
// Bass management of a 5.1 bed: each main channel is split by a
// Linkwitz-Riley crossover (two cascaded second-order Butterworth sections
// per path, so the two paths sum to an all-pass); the high part stays in the
// channel, the low parts of all five are summed, scaled and band-limited at
// 120 Hz, and replace the LFE. Filter states carry from call to call.
#include <array>
#include <cstdint>

#include "matrix/matrix_decoder.h"

namespace tavrin {

// Transposed direct form II; a0 normalised to 1.
struct Biquad {
  double b0 = 0.0, b1 = 0.0, b2 = 0.0, a1 = 0.0, a2 = 0.0;
  double s1 = 0.0, s2 = 0.0;
};

inline double run_biquad(Biquad& q, double x) {
  const double y = q.b0 * x + q.s1;
  q.s1 = q.b1 * x - q.a1 * y + q.s2;
  q.s2 = q.b2 * x - q.a2 * y;
  return y;
}

// Second-order sections at w0 = 2 pi f / fs with quality q.
Biquad low_pass_section(double w0, double q);
Biquad high_pass_section(double w0, double q);

inline constexpr std::size_t kBassMains = 5;

struct CrossoverPaths {
  std::array<Biquad, 2> low;
  std::array<Biquad, 2> high;
};

struct BassManager {
  std::uint32_t sample_rate = 0;
  double crossover_hz = 0.0;
  double lfe_gain = 1.0;  // linear
  std::array<CrossoverPaths, kBassMains> mains;  // bed channels 0, 1, 2, 4, 5
  std::array<Biquad, 4> lfe_low_pass;
};

// "bass management requires 44.1 or 48 kHz", "crossover must be within
// 40..120 Hz", "LFE gain must be within -12..+6 dB" (std::invalid_argument),
// checked in that order.
BassManager make_bass_manager(std::uint32_t sample_rate, double crossover_hz, double lfe_gain_db);

// In place. "bass-management channel length mismatch" when the channels
// differ in length.
void process_bass(BassManager& manager, BedChannels& bed);

}  // namespace tavrin
