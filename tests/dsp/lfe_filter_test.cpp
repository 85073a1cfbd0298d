#include "dsp/lfe_filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <complex>
#include <random>
#include <vector>

namespace tavrin {
namespace {

double response_db(const std::vector<double>& taps, double f, double rate) {
  std::complex<double> sum = 0.0;
  for (std::size_t m = 0; m < taps.size(); ++m) sum += taps[m] * std::polar(1.0, -2.0 * std::numbers::pi * f * m / rate);
  return 20.0 * std::log10(std::abs(sum));
}

// What the decoder's LFE interpolation does to a tone, as measured through
// ffmpeg: a Gaussian roll-off of 4 dB at 100 Hz (48 kHz), scaling with the
// rate.
double decoder_db(double f, double rate) {
  const double f0 = 148.0 * rate / 48000.0;
  return -20.0 * std::log10(std::exp(1.0)) * (f / f0) * (f / f0);
}

// Filter and decoder together: unity from 30 to 100 Hz, and what would fold
// into the bass from 1 kHz up far below it. The taps are symmetric, so the
// delay is the same 224 samples at every frequency.
TEST(LfeFilter, ResponseAndLinearPhase) {
  for (const double rate : {44100.0, 48000.0}) {
    SCOPED_TRACE(rate);
    const LfeFilter filter = make_lfe_filter(static_cast<std::uint32_t>(rate));
    ASSERT_EQ(filter.taps.size(), kLfeFilterTaps);
    for (std::size_t m = 0; m < kLfeFilterTaps; ++m) EXPECT_EQ(filter.taps[m], filter.taps[kLfeFilterTaps - 1 - m]);
    for (double f = 30.0; f <= 100.0; f += 5.0)
      EXPECT_NEAR(response_db(filter.taps, f, rate) + decoder_db(f, rate), 0.0, 0.25) << f;
    for (double f = 1000.0; f < rate / 2; f *= 1.07) EXPECT_LT(response_db(filter.taps, f, rate), -42.0) << f;
  }
}

// Frame by frame, the picks are those of one filter run over the whole
// signal: the history carries across frames.
TEST(LfeFilter, PicksContinueAcrossFrames) {
  LfeFilter filter = make_lfe_filter(48000);
  std::mt19937 gen(3);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  std::vector<double> x(3 * kLfeFrameSamples);
  for (double& v : x) v = dist(gen);
  for (std::size_t frame = 0; frame < 3; ++frame) {
    const auto picks = filter_and_pick_lfe(filter, x.data() + frame * kLfeFrameSamples);
    for (std::size_t j = 0; j < kLfePicksPerFrame; ++j) {
      const std::size_t n = frame * kLfeFrameSamples + j * kLfeDecimation;
      double expected = 0.0;
      for (std::size_t m = 0; m < kLfeFilterTaps && m <= n; ++m) expected += filter.taps[m] * x[n - m];
      EXPECT_NEAR(picks[j], expected, 1e-12) << n;
    }
  }
}

}  // namespace
}  // namespace tavrin
