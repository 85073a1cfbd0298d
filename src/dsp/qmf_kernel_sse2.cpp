#include "dsp/qmf_kernel.h"
#include "dsp/qmf_kernel_x86.h"

namespace tavrin {

#if defined(TAVRIN_QMF_X86)

#define TAVRIN_SSE2 TAVRIN_TARGET("sse2")

namespace {

// Four rows by 2*NV columns of the batched product, kept in registers for the
// whole 32-term sum.
template <int NV>
TAVRIN_SSE2 inline void tile_sse2(double* out, std::size_t out_stride, const double* matrix, const double* in,
                                  std::size_t in_stride, double scale) {
  __m128d acc[4][NV];
  for (int i = 0; i < 4; ++i)
    for (int v = 0; v < NV; ++v) acc[i][v] = _mm_setzero_pd();
  for (std::size_t c = 0; c < kQmfBands; ++c) {
    __m128d x[NV];
    for (int v = 0; v < NV; ++v) x[v] = _mm_loadu_pd(in + c * in_stride + 2 * v);
    for (int i = 0; i < 4; ++i) {
      const __m128d m = _mm_set1_pd(matrix[i * kQmfBands + c]);
      for (int v = 0; v < NV; ++v) acc[i][v] = _mm_add_pd(acc[i][v], _mm_mul_pd(m, x[v]));
    }
  }
  for (int i = 0; i < 4; ++i)
    for (int v = 0; v < NV; ++v) {
      double* o = out + i * out_stride + 2 * v;
      _mm_storeu_pd(o, _mm_add_pd(_mm_loadu_pd(o), _mm_mul_pd(_mm_set1_pd(scale), acc[i][v])));
    }
}

}  // namespace

TAVRIN_SSE2 void qmf_multiply_sse2(double* out, const double* matrix, const double* in) {
  for (std::size_t r = 0; r < kQmfBands; r += 2) {
    const double* row0 = matrix + r * kQmfBands;
    const double* row1 = row0 + kQmfBands;
    __m128d a0 = _mm_setzero_pd(), b0 = _mm_setzero_pd();
    __m128d a1 = _mm_setzero_pd(), b1 = _mm_setzero_pd();
    for (std::size_t c = 0; c < kQmfBands; c += 4) {
      const __m128d x0 = _mm_loadu_pd(in + c);
      const __m128d x1 = _mm_loadu_pd(in + c + 2);
      a0 = _mm_add_pd(a0, _mm_mul_pd(_mm_loadu_pd(row0 + c), x0));
      b0 = _mm_add_pd(b0, _mm_mul_pd(_mm_loadu_pd(row0 + c + 2), x1));
      a1 = _mm_add_pd(a1, _mm_mul_pd(_mm_loadu_pd(row1 + c), x0));
      b1 = _mm_add_pd(b1, _mm_mul_pd(_mm_loadu_pd(row1 + c + 2), x1));
    }
    a0 = _mm_add_pd(a0, b0);
    a1 = _mm_add_pd(a1, b1);
    _mm_storeu_pd(out + r, _mm_add_pd(_mm_unpacklo_pd(a0, a1), _mm_unpackhi_pd(a0, a1)));
  }
}

TAVRIN_SSE2 void qmf_multiply_batch_sse2(double* out, std::size_t out_stride, const double* matrix,
                                         const double* in, std::size_t in_stride, std::size_t count, double scale) {
  for (std::size_t r = 0; r < kQmfBands; r += 4) {
    const double* rows = matrix + r * kQmfBands;
    double* dst = out + r * out_stride;
    std::size_t n = 0;
    for (; n + 4 <= count; n += 4) tile_sse2<2>(dst + n, out_stride, rows, in + n, in_stride, scale);
    for (; n + 2 <= count; n += 2) tile_sse2<1>(dst + n, out_stride, rows, in + n, in_stride, scale);
    for (; n < count; ++n) qmf_batch_tail_column(dst, out_stride, rows, in, in_stride, n, scale);
  }
}

#else

// Never selected off x86; defined so that the kernel table links everywhere.
void qmf_multiply_sse2(double* out, const double* matrix, const double* in) { qmf_multiply_scalar(out, matrix, in); }
void qmf_multiply_batch_sse2(double* out, std::size_t out_stride, const double* matrix, const double* in,
                             std::size_t in_stride, std::size_t count, double scale) {
  qmf_multiply_batch_scalar(out, out_stride, matrix, in, in_stride, count, scale);
}

#endif

}  // namespace tavrin
