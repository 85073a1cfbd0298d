#pragma once
// The 32 x 32 matrix products at the heart of the QMF analysis, in a portable
// scalar form and SSE2/AVX2 forms chosen once per process from the processor
// and the TAVRIN_DTS_QMF_SIMD environment variable.
#include <cstddef>
#include <cstdint>

namespace tavrin {

inline constexpr std::size_t kQmfBands = 32;

enum class QmfKernelId : std::uint8_t { scalar = 0, sse2 = 1, avx2 = 2 };

// out[r] = sum over c of matrix[r*32 + c] * in[c]; out is overwritten and never
// aliases in.
using QmfMatVecFn = void (*)(double* out, const double* matrix, const double* in);

// The same product for `count` vectors held as columns, scaled and added to
// what out holds: out[r*out_stride + n] += scale * (sum over c of
// matrix[r*32 + c] * in[c*in_stride + n]) for n < count. Lets a caller reuse
// one matrix while it is hot in cache and sum the polyphase terms in place.
using QmfMatMatFn = void (*)(double* out, std::size_t out_stride, const double* matrix, const double* in,
                             std::size_t in_stride, std::size_t count, double scale);

struct QmfKernel {
  QmfKernelId id = QmfKernelId::scalar;
  const char* name = "scalar";
  QmfMatVecFn multiply = nullptr;
  QmfMatMatFn multiply_batch = nullptr;
};

// Which kernel a given TAVRIN_DTS_QMF_SIMD value (nullptr when unset) picks on
// a processor with the given features. Unknown values choose automatically.
QmfKernelId select_qmf_kernel(const char* env_value, bool has_sse2, bool has_avx2);

// The process-wide kernel, chosen on the first call (thread-safe).
const QmfKernel& qmf_kernel();

// A specific kernel, or nullptr when this processor cannot run it. Does not
// touch the process-wide choice.
const QmfKernel* qmf_kernel_by_id(QmfKernelId id);

const char* qmf_kernel_name(QmfKernelId id);

// Implementations, one per instruction set (defined in their own files).
void qmf_multiply_scalar(double* out, const double* matrix, const double* in);
void qmf_multiply_batch_scalar(double* out, std::size_t out_stride, const double* matrix, const double* in,
                               std::size_t in_stride, std::size_t count, double scale);
void qmf_multiply_sse2(double* out, const double* matrix, const double* in);
void qmf_multiply_batch_sse2(double* out, std::size_t out_stride, const double* matrix, const double* in,
                             std::size_t in_stride, std::size_t count, double scale);
void qmf_multiply_avx2(double* out, const double* matrix, const double* in);
void qmf_multiply_batch_avx2(double* out, std::size_t out_stride, const double* matrix, const double* in,
                             std::size_t in_stride, std::size_t count, double scale);

}  // namespace tavrin
