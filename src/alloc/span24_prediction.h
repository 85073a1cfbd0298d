#pragma once
// Forward-adaptive prediction for the 24+8 encoder: one band of one
// subframe (8 or 24 samples) coded as the residual of a table predictor,
// in closed loop with what decoders reconstruct, sample by sample, in
// their integer domain.
#include <array>
#include <cstdint>
#include <optional>

#include "dsp/adpcm.h"
#include "dsp/quantizer.h"

namespace tavrin {

inline constexpr unsigned kSpan24MaxSamples = 24;

struct Span24PredictedBand {
  QuantizerChoice choice;
  std::uint16_t pvq = 0;
  std::array<std::int32_t, kSpan24MaxSamples> q{};
  std::array<std::int32_t, kSpan24MaxSamples> y{};  // what decoders reconstruct
  std::array<double, 3> error{};                    // squared error per subsubframe
};

// x[0..n) (n = 8, 16 or 24) at `abits` (1..26) predicted by entry `pvq`
// from `history` (code_adpcm_residual), with its error per subsubframe.
// Nothing when no scale holds the residual.
std::optional<Span24PredictedBand> code_span_predicted(const double* x, unsigned n, unsigned abits,
                                                       std::uint16_t pvq, const AdpcmHistory& history);

// What decoders reconstruct of directly coded indexes q[0..n) at `choice`,
// pushed onto `history`.
void reconstruct_direct(const std::int32_t* q, unsigned n, const QuantizerChoice& choice, AdpcmHistory& history);

}  // namespace tavrin
