#pragma once
// Scale factors, step sizes and the direct (NFE) quantizer shared by every
// encoder path.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "dsp/quant_tables.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tavrin {

struct BitWriter;

struct QuantizerChoice {
  std::uint8_t abits = 0;        // 0: silent band, no audio data
  std::uint8_t scale_index = 0;  // 0..62
  double scale = 0.0;
  double step = 0.0;
  double quantum = 0.0;  // scale * step: the value of one index unit
};

inline double step_size(unsigned abits);   // "invalid DTS lossy ABITS"
double scale_value(unsigned scale_index);  // "invalid DTS 6-bit scale-factor index"
QuantizerChoice choose_baseline_quantizer(const double* samples, std::size_t count, unsigned low, unsigned high);
// choose_baseline_quantizer for samples whose largest magnitude is `peak`
// (NaN samples count as 0), for callers that already know it. A scale
// index near the answer (0..62; the band's scale at the previous ABITS is
// usually within one entry) turns the table search into a short walk; any
// hint gives the same result.
inline constexpr unsigned kNoScaleHint = 63;
inline QuantizerChoice baseline_quantizer_for_peak(double peak, unsigned low, unsigned high,
                                                   unsigned scale_hint = kNoScaleHint);
inline std::int32_t quantize(double x, const QuantizerChoice& choice);
double dequantize(std::int32_t index, const QuantizerChoice& choice);
unsigned nfe_width(unsigned abits);
void write_nfe(BitWriter& writer, std::int32_t index, unsigned abits);
void write_dsync(BitWriter& writer);

[[noreturn]] void throw_quantizer_abits();
[[noreturn]] void throw_baseline_range();
[[noreturn]] void throw_baseline_peak();

// The first scale-table entry not below `needed` (which must not exceed the
// last entry): the smallest scale that fits. The table ascends, so the walks
// from a hint stop at it from either side.
inline const double* first_scale_at_least(double needed, unsigned scale_hint) {
  const double* const first = kScaleFactor6.data();
  if (scale_hint >= kScaleFactor6Count) return std::lower_bound(first, first + kScaleFactor6Count, needed);
  const double* found = first + scale_hint;
  if (*found >= needed) {
    while (found != first && found[-1] >= needed) --found;
  } else {
    while (*found < needed) ++found;
  }
  return found;
}

inline QuantizerChoice quantizer_choice(unsigned abits, const double* scale) {
  QuantizerChoice c;
  c.abits = static_cast<std::uint8_t>(abits);
  c.scale_index = static_cast<std::uint8_t>(scale - kScaleFactor6.data());
  c.scale = *scale;
  c.step = kStepSize[abits];
  c.quantum = c.scale * c.step;
  return c;
}

// Inline so that the allocator's one-ABITS lookups fold down to the walk.
inline QuantizerChoice baseline_quantizer_for_peak(double peak, unsigned low, unsigned high, unsigned scale_hint) {
  if (low < 8 || high > 26 || low > high) throw_baseline_range();
  if (!(peak > 1e-18)) return {};
  const double largest = kScaleFactor6[kScaleFactor6Count - 1];
  for (unsigned a = low; a <= high; ++a) {
    const auto levels = static_cast<double>((std::int32_t{1} << (a - 4)) - 1);
    const double needed = peak / (levels * kStepSize[a]);
    // Also false for NaN, which no scale fits.
    if (!(needed <= largest)) continue;
    return quantizer_choice(a, first_scale_at_least(needed, scale_hint));
  }
  throw_baseline_peak();
}
[[noreturn]] void throw_step_size_abits();
// How far an index of each ABITS reaches: +-(L-1)/2 for the block codes of
// ABITS 1..7, 2^(ABITS-4) - 1 upward (and one further downward) for the
// direct codes of ABITS 8..26.
inline constexpr std::array<std::int32_t, 8> kBlockCodeReach = {0, 1, 2, 3, 4, 6, 8, 12};
inline std::int32_t index_reach(unsigned abits) {
  return abits < 8 ? kBlockCodeReach[abits] : (std::int32_t{1} << (abits - 4)) - 1;
}

// The smallest scale at which a band whose largest magnitude is `peak` fits
// ABITS `abits` (1..26) without clipping, for the encoders that use every
// ABITS. A silent band gets the smallest scale; a peak beyond the largest
// scale gets the largest (the samples then clip at the index range).
inline QuantizerChoice quantizer_at(double peak, unsigned abits, unsigned scale_hint = kNoScaleHint) {
  const double needed = peak / (static_cast<double>(index_reach(abits)) * kStepSize[abits]);
  const double* const first = kScaleFactor6.data();
  if (!(needed > first[0])) return quantizer_choice(abits, first);
  if (!(needed <= kScaleFactor6[kScaleFactor6Count - 1])) return quantizer_choice(abits, first + kScaleFactor6Count - 1);
  return quantizer_choice(abits, first_scale_at_least(needed, scale_hint));
}



// baseline_quantizer_for_peak(peak, abits, abits, hint) without its division,
// for callers that hold inverse_unit = 1 / (levels * step size) of `abits`.
// The product peak * inverse_unit is within a few units in the last place of
// the quotient, so it picks the same scale unless a table entry lies within
// a hair of it; there, and for peaks out of the table's reach, the exact
// function decides.
inline QuantizerChoice baseline_quantizer_by_reciprocal(double peak, unsigned abits, unsigned scale_hint,
                                                        double inverse_unit) {
  const double needed = peak * inverse_unit;
  constexpr double kHair = 1e-9;
  if (!(needed <= kScaleFactor6[kScaleFactor6Count - 1] * (1.0 - kHair)) || !(peak > 1e-18) || abits < 8 ||
      abits > 26)
    return baseline_quantizer_for_peak(peak, abits, abits, scale_hint);
  const double* found = first_scale_at_least(needed, scale_hint);
  if (*found <= needed * (1.0 + kHair) || (found != kScaleFactor6.data() && found[-1] >= needed * (1.0 - kHair)))
    return baseline_quantizer_for_peak(peak, abits, abits, scale_hint);
  return quantizer_choice(abits, found);
}

// Inline, like quantize: the rate allocators look step sizes up per band.
inline double step_size(unsigned abits) {
  if (abits >= kStepSizeCount) throw_step_size_abits();
  return kStepSize[abits];
}

// Round half to even on r (a sample in quantizer units), clamped to the
// index range of `abits` (8..26), NaN coding as 0; the result is an integral
// double.
// The same within integer bounds [lo, hi].
inline double rounded_units_within(double r, double lo, double hi) {
  // Clamping to integer bounds before rounding gives what rounding first
  // would, and keeps the value small enough for the 1.5 * 2^52 shift: the
  // sum has no fraction bits left, so the FPU's round-to-nearest-even mode
  // (which the program never changes) does the rounding without a libm call.
  const double clamped = r < lo ? lo : (r > hi ? hi : r);
  constexpr double kShift = 0x1.8p52;
  const double rounded = (clamped + kShift) - kShift;
  return r == r ? rounded : 0.0;
}

inline double rounded_units(double r, unsigned abits) {
  const auto half = static_cast<double>(std::int32_t{1} << (abits - 4));
  return rounded_units_within(r, -half, half - 1.0);
}

inline double quantized_units(double x, double quantum, unsigned abits) { return rounded_units(x / quantum, abits); }

// Inline because the allocators call it for every sample of every step they
// weigh.
inline std::int32_t quantize(double x, const QuantizerChoice& choice) {
  if (choice.abits == 0) return 0;
  if (choice.abits < 8 || choice.abits > 26) throw_quantizer_abits();
  return static_cast<std::int32_t>(quantized_units(x, choice.quantum, choice.abits));
}

// The index of x at `choice` for any ABITS 1..26: nearest, clamped to the
// ABITS's range, NaN as 0.
inline std::int32_t quantize_index(double x, const QuantizerChoice& choice) {
  if (choice.abits == 0) return 0;
  if (choice.abits >= 8) return quantize(x, choice);
  const auto reach = static_cast<double>(kBlockCodeReach[choice.abits]);
  return static_cast<std::int32_t>(rounded_units_within(x / choice.quantum, -reach, reach));
}

// Round half to even on x[k] / quantum for N samples at once (N even),
// clamped to integer bounds [lo, hi], NaN as 0: rounded_units_within on each.
template <std::size_t N>
void rounded_units_within_n(const double* x, double quantum_value, double lo_value, double hi_value, double* units) {
  static_assert(N % 2 == 0);
#if defined(__SSE2__)
  // Two samples at a time. maxpd yields its second operand for a NaN, so a
  // NaN sample comes out of the clamp as the lower bound; the ordered mask
  // then turns it into 0.
  //
  // Dividing is slow, so x is first multiplied by 1 / quantum. That product
  // is within about 1e-9 of the quotient over the index range, so it rounds
  // to the same integer unless it lies within 1e-6 of a half; only then is
  // the pair divided, and the result is always the quotient's.
  const __m128d quantum = _mm_set1_pd(quantum_value);
  const __m128d inverse = _mm_set1_pd(1.0 / quantum_value);
  const __m128d lo = _mm_set1_pd(lo_value), hi = _mm_set1_pd(hi_value), shift = _mm_set1_pd(0x1.8p52);
  const __m128d magnitude = _mm_castsi128_pd(_mm_set1_epi64x(0x7FFFFFFFFFFFFFFF));
  const __m128d near_half = _mm_set1_pd(0.5 - 1e-6);
  for (std::size_t k = 0; k < N; k += 2) {
    const __m128d v = _mm_loadu_pd(x + k);
    __m128d r = _mm_mul_pd(v, inverse);
    __m128d clamped = _mm_min_pd(_mm_max_pd(r, lo), hi);
    __m128d rounded = _mm_sub_pd(_mm_add_pd(clamped, shift), shift);
    const __m128d off = _mm_and_pd(_mm_sub_pd(clamped, rounded), magnitude);
    if (_mm_movemask_pd(_mm_cmpgt_pd(off, near_half)) != 0) {
      r = _mm_div_pd(v, quantum);
      clamped = _mm_min_pd(_mm_max_pd(r, lo), hi);
      rounded = _mm_sub_pd(_mm_add_pd(clamped, shift), shift);
    }
    _mm_storeu_pd(units + k, _mm_and_pd(_mm_cmpord_pd(r, r), rounded));
  }
#else
  for (std::size_t k = 0; k < N; ++k) units[k] = rounded_units_within(x[k] / quantum_value, lo_value, hi_value);
#endif
}

// quantized_units for N samples at once (N even, abits 8..26): units[k] is
// quantize(x[k], choice) as a double.
template <std::size_t N>
void quantized_units_n(const double* x, const QuantizerChoice& choice, double* units) {
  if (choice.abits < 8 || choice.abits > 26) throw_quantizer_abits();
  const auto half = static_cast<double>(std::int32_t{1} << (choice.abits - 4));
  rounded_units_within_n<N>(x, choice.quantum, -half, half - 1.0, units);
}

// Sum over N samples (N even) of (x - quantize_index(x) * quantum)^2, added
// in order, for any ABITS 0..26.
template <std::size_t N>
double quantization_error(const double* x, const QuantizerChoice& choice) {
  double d[N];
  if (choice.abits == 0) {
    for (std::size_t k = 0; k < N; ++k) d[k] = x[k];
  } else {
    if (choice.abits < 8) {
      const auto reach = static_cast<double>(kBlockCodeReach[choice.abits]);
      rounded_units_within_n<N>(x, choice.quantum, -reach, reach, d);
    } else {
      quantized_units_n<N>(x, choice, d);
    }
    for (std::size_t k = 0; k < N; ++k) d[k] = x[k] - d[k] * choice.quantum;
  }
  double sum = 0.0;
  for (std::size_t k = 0; k < N; ++k) sum += d[k] * d[k];
  return sum;
}

}  // namespace tavrin
