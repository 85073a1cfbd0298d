#include "alloc/span24_mask.h"

#include <algorithm>
#include <cmath>

namespace tavrin {

namespace {

// A tonal masker hides noise about 18 dB below itself, a noise-like one
// about 6 dB below.
double masking_offset(double tonality) { return std::pow(10.0, -(6.0 + 12.0 * tonality) / 10.0); }

// What remains of a subsubframe's masking in the next one (5.3 ms later at
// 48 kHz): forward masking fades over tens of milliseconds.
constexpr double kForwardMasking = 0.1;

}  // namespace

double span24_quiet_threshold(std::size_t band, unsigned sample_rate) {
  const double width = static_cast<double>(sample_rate) / 64.0;
  // The band's most sensitive point decides: a tone anywhere in it is heard
  // there.
  double lowest_db = 1e9;
  for (int k = 0; k <= 8; ++k) {
    const double khz = std::max(0.02, (static_cast<double>(band) + k / 8.0) * width / 1000.0);
    const double db = 3.64 * std::pow(khz, -0.8) - 6.5 * std::exp(-0.6 * (khz - 3.3) * (khz - 3.3)) +
                      0.001 * std::pow(khz, 4.0);
    lowest_db = std::min(lowest_db, std::min(db, 90.0));
  }
  return kSubbandFullScalePower * std::pow(10.0, (lowest_db - 96.0) / 10.0);
}

Span24MaskTables span24_mask_tables(unsigned sample_rate, const PsychoConfig& config) {
  Span24MaskTables t;
  for (std::size_t b = 0; b < kMaskBands; ++b) {
    t.quiet[b] = span24_quiet_threshold(b, sample_rate);
    t.below[b] = std::pow(10.0, -config.lower_spreading_slope * static_cast<double>(b) / 10.0);
    t.above[b] = std::pow(10.0, -config.upper_spreading_slope * static_cast<double>(b) / 10.0);
  }
  return t;
}

Span24Masks span24_masks(const PsychoAnalysis& analysis, std::size_t channels, const Span24MaskTables& tables) {
  const auto& [quiet, below, above] = tables;
  Span24Masks out;
  out.mask.resize(channels);
  for (std::size_t c = 0; c < channels; ++c) {
    std::array<double, kMaskBands> previous{};
    for (std::size_t j = 0; j < kMaskSubsubframes; ++j) {
      const PsychoBandRecord* rec = &analysis.subframes[j][c * kMaskBands];
      std::array<double, kMaskBands> masker{};
      for (std::size_t k = 0; k < kMaskBands; ++k) masker[k] = rec[k].energy * masking_offset(rec[k].tonality);
      for (std::size_t b = 0; b < kMaskBands; ++b) {
        double m = 0.0;
        for (std::size_t k = 0; k < kMaskBands; ++k) m += masker[k] * (k <= b ? below[b - k] : above[k - b]);
        m = std::max(m, kForwardMasking * previous[b]);
        previous[b] = m;
        out.mask[c][j * kMaskBands + b] = std::max(m, quiet[b]);
      }
    }
  }
  return out;
}

}  // namespace tavrin
