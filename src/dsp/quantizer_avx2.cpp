#include "dsp/qmf_kernel.h"

#include "dsp/qmf_kernel_x86.h"
#if !defined(TAVRIN_QMF_X86)
#include "dsp/quantizer.h"
#endif

namespace tavrin {

#if defined(TAVRIN_QMF_X86)
// The same steps as quantization_error<8> in quantizer.h, four samples at a
// time; each sample's rounding and the order of the sum are unchanged, so
// the result is bit for bit the same.
TAVRIN_TARGET("avx2")
double quantization_error8_avx2(const double* x, double quantum, double inverse_quantum, unsigned abits) {
  const auto half = static_cast<double>(std::int32_t{1} << (abits - 4));
  const __m256d q = _mm256_set1_pd(quantum);
  const __m256d inverse = _mm256_set1_pd(inverse_quantum);
  const __m256d lo = _mm256_set1_pd(-half), hi = _mm256_set1_pd(half - 1.0), shift = _mm256_set1_pd(0x1.8p52);
  const __m256d magnitude = _mm256_castsi256_pd(_mm256_set1_epi64x(0x7FFFFFFFFFFFFFFF));
  const __m256d near_half = _mm256_set1_pd(0.5 - 1e-6);
  alignas(32) double d[8];
  for (int k = 0; k < 8; k += 4) {
    const __m256d v = _mm256_loadu_pd(x + k);
    __m256d r = _mm256_mul_pd(v, inverse);
    __m256d clamped = _mm256_min_pd(_mm256_max_pd(r, lo), hi);
    __m256d units = _mm256_sub_pd(_mm256_add_pd(clamped, shift), shift);
    const __m256d off = _mm256_and_pd(_mm256_sub_pd(clamped, units), magnitude);
    if (_mm256_movemask_pd(_mm256_cmp_pd(off, near_half, _CMP_GT_OQ)) != 0) {
      r = _mm256_div_pd(v, q);
      clamped = _mm256_min_pd(_mm256_max_pd(r, lo), hi);
      units = _mm256_sub_pd(_mm256_add_pd(clamped, shift), shift);
    }
    const __m256d rounded = _mm256_and_pd(_mm256_cmp_pd(r, r, _CMP_ORD_Q), units);
    const __m256d e = _mm256_sub_pd(v, _mm256_mul_pd(rounded, q));
    _mm256_store_pd(d + k, _mm256_mul_pd(e, e));
  }
  double sum = 0.0;
  for (int k = 0; k < 8; ++k) sum += d[k];
  return sum;
}
#else
// Never selected off x86; defined so that callers link everywhere.
double quantization_error8_avx2(const double* x, double quantum, double, unsigned abits) {
  QuantizerChoice choice;
  choice.abits = static_cast<std::uint8_t>(abits);
  choice.quantum = quantum;
  return quantization_error<8>(x, choice);
}
#endif

}  // namespace tavrin
