#pragma once
// Masking thresholds for the 24+8 encoder, per channel, subsubframe (8
// subband samples) and band, in the subband samples' own power units, so
// that quantization noise can be weighed as a noise-to-mask ratio. Built on
// the psychoacoustic model's band statistics (energy and tonality), which
// are computed once per frame.
#include <array>
#include <cstddef>
#include <vector>

#include "alloc/psycho.h"

namespace tavrin {

inline constexpr std::size_t kMaskSubsubframes = 4;
inline constexpr std::size_t kMaskBands = 32;

struct Span24Masks {
  // [channel][subsubframe * 32 + band]: the noise power per sample that
  // stays inaudible there.
  std::vector<std::array<double, kMaskSubsubframes * kMaskBands>> mask;
};

// The subband power of a full-scale sine: its samples peak at 2^23, the
// decoders' integer full scale.
inline constexpr double kSubbandFullScalePower = 0.5 * 8388608.0 * 8388608.0;

// The threshold in quiet per band at `sample_rate`, for a full-scale sine at
// 96 dB SPL.
double span24_quiet_threshold(std::size_t band, unsigned sample_rate);

// What the masks need that depends on the stream alone: the threshold in
// quiet, how far each band reaches on the critical-band (Bark) scale, and
// how much of each band's masking reaches every other band. Made once per
// stream.
struct Span24MaskTables {
  std::array<double, kMaskBands> quiet{};
  std::array<double, kMaskBands> bark_width{};    // critical bands the subband spans
  std::array<double, kMaskBands> tonal_offset{};  // dB a tonal masker sits above its mask
  std::array<double, kMaskBands * kMaskBands> spread{};  // [maskee * 32 + masker]
};

Span24MaskTables span24_mask_tables(unsigned sample_rate);

Span24Masks span24_masks(const PsychoAnalysis& analysis, std::size_t channels, const Span24MaskTables& tables);

}  // namespace tavrin
