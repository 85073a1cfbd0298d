// The distances of the pruned shortlist scan four at a time, with the
// reference's operations in its order, so that the list is the reference's.
#include "dsp/adpcm_search.h"
#include "dsp/qmf_kernel.h"
#include "dsp/qmf_kernel_x86.h"

namespace tavrin {

#if defined(TAVRIN_QMF_X86)

namespace {

TAVRIN_TARGET("avx2")
int distance4_avx2(const AdpcmSearchTable& t, const double* target, std::size_t i, double limit, double* d) {
  __m256d sum = _mm256_setzero_pd();
  for (std::size_t k = 0; k < 4; ++k) {
    const __m256d diff = _mm256_sub_pd(_mm256_set1_pd(target[k]), _mm256_loadu_pd(t.sorted[k].data() + i));
    sum = _mm256_add_pd(sum, _mm256_mul_pd(diff, diff));
  }
  _mm256_storeu_pd(d, sum);
  return _mm256_movemask_pd(_mm256_cmp_pd(sum, _mm256_set1_pd(limit), _CMP_LE_OQ));
}

}  // namespace

// Four entries at a time, each lane with the reference's operations in its
// order (no fused multiply-adds).
TAVRIN_TARGET("avx2")
void adpcm_residuals_avx2(const double* x, std::size_t n, const std::uint16_t* list, std::size_t count,
                          double* sums) {
  const AdpcmSearchTable& t = adpcm_search_table();
  std::size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    __m256d c[4];
    for (std::size_t k = 0; k < 4; ++k)
      c[k] = _mm256_set_pd(t.coef[k][list[i + 3]], t.coef[k][list[i + 2]], t.coef[k][list[i + 1]], t.coef[k][list[i]]);
    __m256d sum = _mm256_setzero_pd();
    for (std::size_t j = 4; j < n; ++j) {
      __m256d p = _mm256_mul_pd(c[0], _mm256_set1_pd(x[j - 1]));
      p = _mm256_add_pd(p, _mm256_mul_pd(c[1], _mm256_set1_pd(x[j - 2])));
      p = _mm256_add_pd(p, _mm256_mul_pd(c[2], _mm256_set1_pd(x[j - 3])));
      p = _mm256_add_pd(p, _mm256_mul_pd(c[3], _mm256_set1_pd(x[j - 4])));
      const __m256d e = _mm256_sub_pd(_mm256_set1_pd(x[j]), p);
      sum = _mm256_add_pd(sum, _mm256_mul_pd(e, e));
    }
    _mm256_storeu_pd(sums + i, sum);
  }
  adpcm_residuals_sse2(x, n, list + i, count - i, sums + i);
}

std::size_t adpcm_shortlist_avx2(const double* target, std::size_t length, std::uint16_t* out,
                                 AdpcmShortlistWork& work) {
  return adpcm_shortlist_pruned(target, length, out, work, distance4_avx2);
}

#else

// Never selected off x86; defined so that the kernel table links everywhere.
void adpcm_residuals_avx2(const double* x, std::size_t n, const std::uint16_t* list, std::size_t count,
                          double* sums) {
  adpcm_residuals_scalar(x, n, list, count, sums);
}
std::size_t adpcm_shortlist_avx2(const double* target, std::size_t length, std::uint16_t* out,
                                 AdpcmShortlistWork& work) {
  return adpcm_shortlist_sse2(target, length, out, work);
}

#endif

}  // namespace tavrin
