#include "alloc/span24_mask.h"

#include <algorithm>
#include <cmath>

#include "alloc/hearing.h"

namespace tavrin {

namespace {

// A noise-like masker hides noise about 5.5 dB below itself; a tonal one
// further below, the more so the higher it lies.
constexpr double kNoiseOffsetDb = 5.5;

// Above this the threshold in quiet climbs steeply, more so with age; it is
// held at its value here, so that noise in the top octave is not taken for
// free.
constexpr double kHighestQuietKhz = 15.5;

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
    const double khz = std::clamp((static_cast<double>(band) + k / 8.0) * width / 1000.0, 0.02, kHighestQuietKhz);
    lowest_db = std::min(lowest_db, std::min(threshold_in_quiet_db(khz), 90.0));
  }
  return kSubbandFullScalePower * std::pow(10.0, (lowest_db - 96.0) / 10.0);
}

Span24MaskTables span24_mask_tables(unsigned sample_rate) {
  Span24MaskTables t;
  const double width = static_cast<double>(sample_rate) / 64.0;
  std::array<double, kMaskBands> centre{};
  for (std::size_t b = 0; b < kMaskBands; ++b) {
    const double lo = static_cast<double>(b) * width;
    t.quiet[b] = span24_quiet_threshold(b, sample_rate);
    t.bark_width[b] = bark(lo + width) - bark(lo);
    centre[b] = bark(lo + 0.5 * width);
    t.tonal_offset[b] = 14.5 + centre[b];
  }
  for (std::size_t b = 0; b < kMaskBands; ++b)
    for (std::size_t k = 0; k < kMaskBands; ++k)
      t.spread[b * kMaskBands + k] = b == k ? 1.0 : std::pow(10.0, schroeder_spreading_db(centre[b] - centre[k]) / 10.0);
  return t;
}

Span24Masks span24_masks(const PsychoAnalysis& analysis, std::size_t channels, const Span24MaskTables& tables) {
  Span24Masks out;
  out.mask.resize(channels);
  for (std::size_t c = 0; c < channels; ++c) {
    std::array<double, kMaskBands> previous{};
    for (std::size_t j = 0; j < kMaskSubsubframes; ++j) {
      const PsychoBandRecord* rec = &analysis.subframes[j][c * kMaskBands];
      std::array<double, kMaskBands> masker{};
      for (std::size_t k = 0; k < kMaskBands; ++k) {
        const double t = rec[k].tonality;
        const double offset_db = t * tables.tonal_offset[k] + (1.0 - t) * kNoiseOffsetDb;
        masker[k] = rec[k].energy * std::pow(10.0, -offset_db / 10.0);
      }
      for (std::size_t b = 0; b < kMaskBands; ++b) {
        double m = 0.0;
        for (std::size_t k = 0; k < kMaskBands; ++k) m += masker[k] * tables.spread[b * kMaskBands + k];
        m = std::max(m, kForwardMasking * previous[b]);
        previous[b] = m;
        out.mask[c][j * kMaskBands + b] = std::max(m, tables.quiet[b]);
      }
    }
  }
  return out;
}

}  // namespace tavrin
