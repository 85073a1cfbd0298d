#pragma once
// The DSP kernels: the 32 x 32 matrix products at the heart of the QMF
// analysis, the allocator's quantization error sum, and the predictor-table
// shortlist scan and residual energies, each in a plain reference form and SSE2/AVX2 forms, held
// in one table of function sets of which one is chosen per process from
// the processor and the TAVRIN_DTS_QMF_SIMD environment variable.
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

// Sum over x[0..7] of (x - q * quantum)^2, q being x's quantization index
// at `abits` (8..26) as quantize() gives it. `inverse_quantum` is within a
// few units in the last place of 1 / quantum; every form gives the same
// result, bit for bit.
using QuantErrorFn = double (*)(const double* x, double quantum, double inverse_quantum, unsigned abits);

struct AdpcmShortlistWork;
// The `length` (1..4096) predictor-table entries nearest to target[0..3],
// nearest first, exactly as shortlist_adpcm_entries orders them; `out` holds
// length + 1 entries, `work` is reused from call to call. Returns how many
// were written.
using AdpcmShortlistFn = std::size_t (*)(const double* target, std::size_t length, std::uint16_t* out,
                                         AdpcmShortlistWork& work);

// sums[i] = sum over j = 4..n-1 of (x[j] - p_j)^2, p_j = c0 * x[j-1] +
// c1 * x[j-2] + c2 * x[j-3] + c3 * x[j-4] formed left to right, for the
// format's predictor-table entries list[0..count) (c = entry * 2^-13): the
// residual energies among which a shortlist's entry is chosen. Every form
// gives the same sums, bit for bit.
using AdpcmResidualsFn = void (*)(const double* x, std::size_t n, const std::uint16_t* list, std::size_t count,
                                  double* sums);

struct DspKernels {
  QmfKernelId id = QmfKernelId::scalar;
  const char* name = "scalar";
  QmfMatVecFn multiply = nullptr;
  QmfMatMatFn multiply_batch = nullptr;
  QuantErrorFn quantization_error8 = nullptr;
  AdpcmShortlistFn adpcm_shortlist = nullptr;
  AdpcmResidualsFn adpcm_residuals = nullptr;
};
// The QMF code's name for the set it runs with.
using QmfKernel = DspKernels;

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
double quantization_error8_scalar(const double* x, double quantum, double inverse_quantum, unsigned abits);
double quantization_error8_sse2(const double* x, double quantum, double inverse_quantum, unsigned abits);
double quantization_error8_avx2(const double* x, double quantum, double inverse_quantum, unsigned abits);
std::size_t adpcm_shortlist_scalar(const double* target, std::size_t length, std::uint16_t* out,
                                   AdpcmShortlistWork& work);
std::size_t adpcm_shortlist_sse2(const double* target, std::size_t length, std::uint16_t* out,
                                 AdpcmShortlistWork& work);
std::size_t adpcm_shortlist_avx2(const double* target, std::size_t length, std::uint16_t* out,
                                 AdpcmShortlistWork& work);
void adpcm_residuals_scalar(const double* x, std::size_t n, const std::uint16_t* list, std::size_t count,
                            double* sums);
void adpcm_residuals_sse2(const double* x, std::size_t n, const std::uint16_t* list, std::size_t count,
                          double* sums);
void adpcm_residuals_avx2(const double* x, std::size_t n, const std::uint16_t* list, std::size_t count,
                          double* sums);

}  // namespace tavrin
