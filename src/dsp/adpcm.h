#pragma once
// Forward-adaptive ADPCM of one subband: whether a 4-tap predictor from the
// format's coefficient table pays on a span of samples, and which entry
// (PVQ) to send; and the decoder's own reconstruction of predicted and
// direct samples, which the encoder must follow exactly so that its
// prediction history is the decoder's.
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "dsp/adpcm_search.h"
#include "dsp/adpcm_vq_table.h"
#include "dsp/quant_tables.h"

namespace tavrin {

using AdpcmVqEntry = std::array<std::int16_t, 4>;
using Predictor = std::array<double, 4>;  // coefficient k multiplies the sample k + 1 places back

struct PredictorConfig {
  unsigned order = 4;          // must be 4
  double min_gain_db = 0.0;    // prediction only at or above this gain
  double ridge = 0.0;          // diagonal loading relative to the span's energy; < 0 counts as 0
};

struct PredictionDecision {
  Predictor ls_coefficients{};
  double ls_residual = 0.0;  // mean square
  double ls_gain_db = 0.0;
  bool ls_valid = false;
  bool ls_usable = false;
  std::uint16_t pvq = 0;
  Predictor coefficients{};  // the chosen entry's, table value * 2^-13
  double residual = 0.0;     // mean square
  double gain_db = 0.0;
  bool chosen = false;
  std::uint8_t pmode = 0;
};

struct PvqChoice {
  std::uint16_t pvq = 0;
  double residual = 0.0;  // mean square
  double gain_db = 0.0;
};

// std::out_of_range "DTS ADPCM PVQ index out of range" for pvq >= 4096.
Predictor adpcm_vq_entry(unsigned pvq);

// The min(length, count) entries nearest to `target` (squared distance,
// ties within 1e-8 relative to the smaller index), nearest first.
// "ADPCM shortlist must be non-zero", "null ADPCM VQ table".
std::vector<std::uint16_t> shortlist_adpcm_entries(const Predictor& target, const AdpcmVqEntry* table,
                                                   std::size_t count, std::size_t length);

// The shortlisted entry with the smallest residual on x[4..n-1] (ties to the
// smaller PVQ). "not enough samples for DTS ADPCM PVQ selection" for a null
// x or n <= 4. `work`, when given, is the scan's reusable room; the
// shortlist is left in work->list.
PvqChoice select_pvq(const double* x, std::size_t n, const Predictor& target, const AdpcmVqEntry* table,
                     std::size_t count, std::size_t length, AdpcmShortlistWork* work = nullptr);

// The selection alone: of list[0..count), the entry with the smallest
// residual on x[4..n-1] (ties to the smaller PVQ), with its gain. Same
// message as select_pvq.
PvqChoice select_among(const double* x, std::size_t n, const std::uint16_t* list, std::size_t count,
                       const AdpcmVqEntry* table = kAdpcmVq.data());

// The least-squares part of a decision. "null predictor samples",
// "DTS Core predictor order is 4", "not enough samples for 4-tap predictor".
PredictionDecision design_predictor(const double* x, std::size_t n, const PredictorConfig& config);

// Design, then (when usable) the table search; PMODE 1 when the chosen
// entry's gain reaches the minimum.
PredictionDecision decide_prediction(const double* x, std::size_t n, const PredictorConfig& config,
                                     std::size_t shortlist_length, AdpcmShortlistWork* work = nullptr);

// A band's decisions from block to block. The shortlist (the L table
// entries nearest to the least-squares predictor) changes only when the
// predictor moves far enough: the last one is kept with the radius that
// holds it and the distance of the next entry out, and the table is scanned
// again only when the move could reach across that gap; the decision is
// then decide_prediction's. A band predicted last time also keeps its
// shortlist while its predictor stays within half the list's radius. With
// `may_reuse`, the caller accepts the kept shortlist even when it might have
// changed (the scan is what costs), and the choice is the best of the kept
// neighbourhood.
struct AdpcmDecisionCache {
  Predictor target{};
  std::vector<std::uint16_t> list;
  double radius = 0.0;       // no listed entry lies further from target
  double next_radius = 0.0;  // no other entry lies nearer
  bool valid = false;
  bool predicted = false;  // the last decision switched prediction on
};

PredictionDecision decide_prediction_cached(const double* x, std::size_t n, const PredictorConfig& config,
                                            std::size_t shortlist_length, AdpcmDecisionCache& cache,
                                            AdpcmShortlistWork& work, bool may_reuse = false);

// ---- What a decoder reconstructs ------------------------------------------
// Subband samples in the decoder's 24-bit integer domain, which is the
// encoder's subband scale: a full-scale input gives samples of about
// 32768 * sqrt(2).

inline constexpr std::int32_t kDecoderSampleMax = (1 << 23) - 1;
inline constexpr std::int32_t kDecoderSampleMin = -(1 << 23);

inline std::int32_t clip_decoder_sample(std::int64_t v) {
  return static_cast<std::int32_t>(v < kDecoderSampleMin ? kDecoderSampleMin : v > kDecoderSampleMax ? kDecoderSampleMax : v);
}

// The value of quantization index q at (abits, scale index): q * scale *
// step, with the step in its 22-bit fixed point, rounded half up to an
// integer and clipped to 24 bits. 0 for ABITS 0. Inline: the closed-loop
// coding calls it for every sample it tries, with the factor of a band
// formed once.
inline std::int64_t decoder_dequantize_factor(unsigned abits, unsigned scale_index) {
  if (abits == 0) return 0;
  const auto step = static_cast<std::int64_t>(kStepSize[abits] * 4194304.0);
  return static_cast<std::int64_t>(kScaleFactor6[scale_index]) * step;
}

inline std::int32_t decoder_dequantize_by(std::int32_t q, std::int64_t factor) {
  return clip_decoder_sample((std::int64_t{q} * factor + (std::int64_t{1} << 21)) >> 22);
}

inline std::int32_t decoder_dequantize(std::int32_t q, unsigned abits, unsigned scale_index) {
  return decoder_dequantize_by(q, decoder_dequantize_factor(abits, scale_index));
}

// The last four reconstructed samples of a subband, the newest first.
using AdpcmHistory = std::array<std::int32_t, 4>;

// sum c_k * h[k] in Q13, rounded half up and clipped to 24 bits.
inline std::int32_t decoder_prediction(const AdpcmHistory& history, const AdpcmVqEntry& entry) {
  const std::int64_t sum = std::int64_t{entry[0]} * history[0] + std::int64_t{entry[1]} * history[1] +
                           std::int64_t{entry[2]} * history[2] + std::int64_t{entry[3]} * history[3];
  return clip_decoder_sample((sum + 4096) >> 13);
}

inline void push_history(AdpcmHistory& history, std::int32_t y) {
  history[3] = history[2];
  history[2] = history[1];
  history[1] = history[0];
  history[0] = y;
}

// x[0..n) coded at `abits` (1..26) as the residual of `entry`'s prediction
// from `history`, sample by sample as the decoders reconstruct: the indexes
// in q, the reconstructed samples in y. The scale fits the residual of the
// prediction from the input itself; where the closed loop's residual
// outgrows it, up to four scales further up are tried, and the last tried
// stays when none holds it (`fits` false). Where the quantum is below two
// integer units, the index next to the rounded one is taken when the
// decoder's rounding lands it nearer the input.
struct AdpcmResidualCoding {
  std::uint8_t scale = 0;
  bool fits = false;
};

AdpcmResidualCoding code_adpcm_residual(const double* x, std::size_t n, unsigned abits, const AdpcmVqEntry& entry,
                                        const AdpcmHistory& history, std::int32_t* q, std::int32_t* y);

}  // namespace tavrin
