#include "dsp/qmf_kernel.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "platform/cpu_features.h"

namespace tavrin {

namespace {

constexpr DspKernels kKernels[] = {
    {QmfKernelId::scalar, "scalar", qmf_multiply_scalar, qmf_multiply_batch_scalar, quantization_error8_scalar,
     adpcm_shortlist_scalar, adpcm_residuals_scalar},
    {QmfKernelId::sse2, "sse2", qmf_multiply_sse2, qmf_multiply_batch_sse2, quantization_error8_sse2,
     adpcm_shortlist_sse2, adpcm_residuals_sse2},
    {QmfKernelId::avx2, "avx2", qmf_multiply_avx2, qmf_multiply_batch_avx2, quantization_error8_avx2,
     adpcm_shortlist_avx2, adpcm_residuals_avx2},
};

bool offered(QmfKernelId id) {
  switch (id) {
    case QmfKernelId::scalar:
      return true;
    case QmfKernelId::sse2:
      return cpu_has_sse2();
    case QmfKernelId::avx2:
      return cpu_has_avx2();
  }
  return false;
}

}  // namespace

QmfKernelId select_qmf_kernel(const char* env_value, bool has_sse2, bool has_avx2) {
  const auto best_of = [&](bool allow_avx2) {
    if (allow_avx2 && has_avx2) return QmfKernelId::avx2;
    if (has_sse2) return QmfKernelId::sse2;
    return QmfKernelId::scalar;
  };
  // Exact, case-sensitive words; anything else silently means "the best".
  if (env_value != nullptr && std::strcmp(env_value, "scalar") == 0) return QmfKernelId::scalar;
  if (env_value != nullptr && std::strcmp(env_value, "sse2") == 0) return best_of(false);
  return best_of(true);
}

const QmfKernel& qmf_kernel() {
  static const QmfKernel& chosen = kKernels[static_cast<std::size_t>(
      select_qmf_kernel(std::getenv("TAVRIN_DTS_QMF_SIMD"), cpu_has_sse2(), cpu_has_avx2()))];
  return chosen;
}

const QmfKernel* qmf_kernel_by_id(QmfKernelId id) {
  const auto index = static_cast<std::size_t>(id);
  if (index >= std::size(kKernels) || !offered(id)) return nullptr;
  return &kKernels[index];
}

const char* qmf_kernel_name(QmfKernelId id) {
  const auto index = static_cast<std::size_t>(id);
  return index < std::size(kKernels) ? kKernels[index].name : "unknown";
}

void qmf_multiply_scalar(double* out, const double* matrix, const double* in) {
  for (std::size_t r = 0; r < kQmfBands; ++r) {
    const double* row = matrix + r * kQmfBands;
    double sum = 0.0;
    for (std::size_t c = 0; c < kQmfBands; ++c) sum += row[c] * in[c];
    out[r] = sum;
  }
}

void qmf_multiply_batch_scalar(double* out, std::size_t out_stride, const double* matrix, const double* in,
                               std::size_t in_stride, std::size_t count, double scale) {
  for (std::size_t r = 0; r < kQmfBands; ++r) {
    const double* row = matrix + r * kQmfBands;
    for (std::size_t n = 0; n < count; ++n) {
      double sum = 0.0;
      for (std::size_t c = 0; c < kQmfBands; ++c) sum += row[c] * in[c * in_stride + n];
      out[r * out_stride + n] += scale * sum;
    }
  }
}

}  // namespace tavrin
