#include "alloc/span24_prediction.h"

namespace tavrin {

std::optional<Span24PredictedBand> code_span_predicted(const double* x, unsigned n, unsigned abits,
                                                       std::uint16_t pvq, const AdpcmHistory& history) {
  Span24PredictedBand out;
  out.pvq = pvq;
  const AdpcmResidualCoding coded = code_adpcm_residual(x, n, abits, kAdpcmVq[pvq], history, out.q.data(), out.y.data());
  if (!coded.fits) return std::nullopt;
  out.choice = quantizer_choice(abits, kScaleFactor6.data() + coded.scale);
  for (unsigned k = 0; k < n; ++k) {
    const double d = x[k] - out.y[k];
    out.error[k / 8] += d * d;
  }
  return out;
}

void reconstruct_direct(const std::int32_t* q, unsigned n, const QuantizerChoice& choice, AdpcmHistory& history) {
  const std::int64_t factor = decoder_dequantize_factor(choice.abits, choice.scale_index);
  for (unsigned k = 0; k < n; ++k) push_history(history, choice.abits == 0 ? 0 : decoder_dequantize_by(q[k], factor));
}

}  // namespace tavrin
