#pragma once
// Shared switches of the SIMD kernel files. Each kernel function carries its
// own target attribute, so the binary runs on any x86 processor and only the
// selected kernel ever executes wider instructions.
#if defined(__x86_64__) || defined(__i386__) || defined(_M_X64) || defined(_M_IX86)
#define TAVRIN_QMF_X86 1
#include <immintrin.h>
#endif

#if defined(__GNUC__) || defined(__clang__)
#define TAVRIN_TARGET(isa) __attribute__((target(isa)))
#else
#define TAVRIN_TARGET(isa)
#endif

#include <cstddef>

namespace tavrin {

// The columns left over after the vector tiles: four matrix rows times one
// input column, added into the output with the gain, summed in column order.
inline void qmf_batch_tail_column(double* dst, std::size_t out_stride, const double* rows, const double* in,
                                  std::size_t in_stride, std::size_t n, double scale) {
  for (std::size_t i = 0; i < 4; ++i) {
    double sum = 0.0;
    for (std::size_t c = 0; c < 32; ++c) sum += rows[i * 32 + c] * in[c * in_stride + n];
    dst[i * out_stride + n] += scale * sum;
  }
}

}  // namespace tavrin
