// The quantizer's fast paths against the plain definitions they replace: a
// linear scan for the first ABITS and smallest scale that fit, and libm
// rounding followed by a clamp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "dsp/quant_tables.h"
#include "dsp/quantizer.h"

namespace tavrin {
namespace {

double levels(unsigned abits) { return std::ldexp(1.0, static_cast<int>(abits) - 4) - 1.0; }

// {abits, scale index}, or {0, 0} when nothing fits.
std::pair<unsigned, unsigned> scan(double peak, unsigned low, unsigned high) {
  for (unsigned a = low; a <= high; ++a) {
    const double needed = peak / (levels(a) * kStepSize[a]);
    for (unsigned s = 0; s < kScaleFactor6Count; ++s)
      if (kScaleFactor6[s] >= needed) return {a, s};
  }
  return {0, 0};
}

std::int32_t rounded_then_clamped(double x, const QuantizerChoice& q) {
  const double r = std::nearbyint(x / q.quantum);
  if (std::isnan(r)) return 0;
  return static_cast<std::int32_t>(std::clamp(r, -levels(q.abits) - 1.0, levels(q.abits)));
}

TEST(QuantizerSearch, PeakLookupMatchesLinearScanOnEveryBoundary) {
  // Exactly on, just below and just above every scale of every ABITS, over
  // single and widened ABITS ranges; the duplicate scales (2, 2 and 3, 3)
  // must give the first index.
  for (unsigned a = 8; a <= 26; ++a) {
    for (unsigned s = 0; s < kScaleFactor6Count; ++s) {
      const double on = kScaleFactor6[s] * levels(a) * kStepSize[a];
      for (const double peak : {on, std::nextafter(on, 0.0), std::nextafter(on, 1e300)}) {
        for (const unsigned high : {a, 26u}) {
          const auto [want_a, want_s] = scan(peak, a, high);
          if (want_a == 0) {
            EXPECT_THROW(baseline_quantizer_for_peak(peak, a, high), std::invalid_argument);
            continue;
          }
          const QuantizerChoice q = baseline_quantizer_for_peak(peak, a, high);
          ASSERT_EQ(q.abits, want_a) << peak;
          ASSERT_EQ(q.scale_index, want_s) << peak << " abits " << a;
          EXPECT_EQ(q.quantum, kScaleFactor6[want_s] * kStepSize[want_a]);
          const double samples[] = {peak * 0.25, -peak, NAN};
          const QuantizerChoice from_samples = choose_baseline_quantizer(samples, 3, a, high);
          EXPECT_EQ(from_samples.abits, q.abits);
          EXPECT_EQ(from_samples.scale_index, q.scale_index);
        }
      }
    }
  }
  for (const double silent : {0.0, 1e-18, -1.0, double{NAN}}) EXPECT_EQ(baseline_quantizer_for_peak(silent, 8, 26).abits, 0);
  EXPECT_THROW(baseline_quantizer_for_peak(INFINITY, 8, 26), std::invalid_argument);
  EXPECT_THROW(baseline_quantizer_for_peak(1.0, 8, 27), std::invalid_argument);
}

TEST(QuantizerSearch, RoundingMatchesLibmEverywhere) {
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> unit(-1.2, 1.2);
  for (unsigned a = 8; a <= 26; ++a) {
    const QuantizerChoice q = baseline_quantizer_for_peak(1000.0, a, a);
    const double top = levels(a);
    std::vector<double> units = {0.5, -0.5, 1.5, -1.5, top - 0.5, top + 0.5, -top - 0.5, -top - 1.5,
                                 -0.0, 1e300, -1e300, INFINITY, -INFINITY, double{NAN}};
    for (int i = 0; i < 2000; ++i) units.push_back(unit(rng) * top);
    for (int i = 0; i < 200; ++i) units.push_back(std::floor(unit(rng) * top) + 0.5);  // exact ties
    for (const double u : units) {
      const double x = u * q.quantum;
      ASSERT_EQ(quantize(x, q), rounded_then_clamped(x, q)) << "abits " << a << " units " << u;
    }
  }
}

}  // namespace
}  // namespace tavrin
