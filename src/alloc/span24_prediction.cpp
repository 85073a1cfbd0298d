#include "alloc/span24_prediction.h"

#include <algorithm>
#include <cmath>

namespace tavrin {

namespace {

constexpr unsigned kScaleRetries = 4;

// Runs the decoder's loop; false when a residual fell outside the index
// range (its error is then the clamp's, and a larger scale does better).
bool run_closed_loop(const double* x, unsigned n, const AdpcmVqEntry& entry, AdpcmHistory history,
                     Span24PredictedBand& out) {
  const QuantizerChoice& c = out.choice;
  const double reach = static_cast<double>(index_reach(c.abits));
  const double per_unit = 1.0 / c.quantum;
  const double low = c.abits < 8 ? -reach : -reach - 1.0;
  const std::int64_t factor = decoder_dequantize_factor(c.abits, c.scale_index);
  bool fits = true;
  out.error = {};
  for (unsigned k = 0; k < n; ++k) {
    const std::int32_t p = decoder_prediction(history, entry);
    const double r = (x[k] - p) * per_unit;
    fits = fits && r >= low - 0.5 && r <= reach + 0.5;
    const auto q = static_cast<std::int32_t>(rounded_units_within(r, low, reach));
    const std::int32_t y = clip_decoder_sample(std::int64_t{decoder_dequantize_by(q, factor)} + p);
    out.q[k] = q;
    out.y[k] = y;
    const double d = x[k] - y;
    out.error[k / 8] += d * d;
    push_history(history, y);
  }
  return fits;
}

}  // namespace

std::optional<Span24PredictedBand> code_span_predicted(const double* x, unsigned n, unsigned abits,
                                                       std::uint16_t pvq, const AdpcmHistory& history) {
  const AdpcmVqEntry& entry = kAdpcmVq[pvq];
  const Predictor c = adpcm_vq_entry(pvq);
  double past[4] = {static_cast<double>(history[0]), static_cast<double>(history[1]),
                    static_cast<double>(history[2]), static_cast<double>(history[3])};
  double peak = 0.0;
  for (unsigned k = 0; k < n; ++k) {
    const double p = c[0] * past[0] + c[1] * past[1] + c[2] * past[2] + c[3] * past[3];
    peak = std::max(peak, std::abs(x[k] - p));
    past[3] = past[2];
    past[2] = past[1];
    past[1] = past[0];
    past[0] = x[k];
  }
  Span24PredictedBand out;
  out.pvq = pvq;
  out.choice = quantizer_at(peak, abits);
  for (unsigned retry = 0; retry <= kScaleRetries; ++retry) {
    if (run_closed_loop(x, n, entry, history, out)) return out;
    if (out.choice.scale_index + 1u >= kScaleFactor6Count) break;
    out.choice = quantizer_choice(abits, kScaleFactor6.data() + out.choice.scale_index + 1);
  }
  return std::nullopt;
}

void reconstruct_direct(const std::int32_t* q, unsigned n, const QuantizerChoice& choice, AdpcmHistory& history) {
  const std::int64_t factor = decoder_dequantize_factor(choice.abits, choice.scale_index);
  for (unsigned k = 0; k < n; ++k) push_history(history, choice.abits == 0 ? 0 : decoder_dequantize_by(q[k], factor));
}

}  // namespace tavrin
