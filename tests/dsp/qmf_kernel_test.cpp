#include "dsp/qmf_kernel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "platform/cpu_features.h"

namespace tavrin {
namespace {

using Id = QmfKernelId;

TEST(QmfKernelSelection, EnvironmentValueAndProcessorDecide) {
  struct Case {
    const char* env;
    bool sse2;
    bool avx2;
    Id expected;
  };
  const std::vector<Case> cases = {
      {nullptr, true, true, Id::avx2},     {nullptr, true, false, Id::sse2},    {nullptr, false, false, Id::scalar},
      {"", true, true, Id::avx2},          {"scalar", true, true, Id::scalar},  {"scalar", false, false, Id::scalar},
      {"sse2", true, true, Id::sse2},      {"sse2", false, false, Id::scalar},  {"avx2", true, true, Id::avx2},
      {"avx2", true, false, Id::sse2},     {"avx2", false, false, Id::scalar},
      // Upper case, padded or unknown words are not recognised and choose the best.
      {"SCALAR", true, true, Id::avx2},    {"SSE2", true, true, Id::avx2},      {"AVX2", true, false, Id::sse2},
      {"Scalar", false, false, Id::scalar}, {"scalar ", true, true, Id::avx2},  {"avx512", true, true, Id::avx2},
      {"neon", true, false, Id::sse2},     {"0", true, true, Id::avx2},
  };
  for (const Case& c : cases)
    EXPECT_EQ(select_qmf_kernel(c.env, c.sse2, c.avx2), c.expected)
        << (c.env ? c.env : "<unset>") << " sse2=" << c.sse2 << " avx2=" << c.avx2;
}

TEST(QmfKernelSelection, ProcessChoiceFollowsEnvironmentAndIsStable) {
  const QmfKernel& chosen = qmf_kernel();
  EXPECT_EQ(chosen.id, select_qmf_kernel(std::getenv("TAVRIN_DTS_QMF_SIMD"), cpu_has_sse2(), cpu_has_avx2()));
  EXPECT_EQ(&qmf_kernel(), &chosen);
  EXPECT_STREQ(chosen.name, qmf_kernel_name(chosen.id));
  ASSERT_NE(qmf_kernel_by_id(chosen.id), nullptr);
  EXPECT_STREQ(qmf_kernel_by_id(Id::scalar)->name, "scalar");
  EXPECT_STREQ(qmf_kernel_name(Id::sse2), "sse2");
  EXPECT_STREQ(qmf_kernel_name(Id::avx2), "avx2");
  EXPECT_EQ(qmf_kernel_by_id(Id::avx2) != nullptr, cpu_has_avx2());
}

// Every kernel against the scalar one, for the single product and for batches
// whose sizes exercise every tile and remainder path, with padded strides.
TEST(QmfKernel, EveryKernelMatchesScalar) {
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  std::vector<double> matrix(kQmfBands * kQmfBands);
  for (double& v : matrix) v = dist(rng);
  const QmfKernel& scalar = *qmf_kernel_by_id(Id::scalar);

  for (Id id : {Id::scalar, Id::sse2, Id::avx2}) {
    const QmfKernel* kernel = qmf_kernel_by_id(id);
    if (kernel == nullptr) {
      std::printf("skipping %s: not offered by this processor\n", qmf_kernel_name(id));
      continue;
    }
    SCOPED_TRACE(kernel->name);
    EXPECT_EQ(kernel->id, id);

    std::vector<double> in(kQmfBands), want(kQmfBands), got(kQmfBands, 99.0);
    for (double& v : in) v = dist(rng);
    scalar.multiply(want.data(), matrix.data(), in.data());
    kernel->multiply(got.data(), matrix.data(), in.data());
    for (std::size_t r = 0; r < kQmfBands; ++r) EXPECT_NEAR(got[r], want[r], 1e-13 * (1.0 + std::fabs(want[r]))) << r;

    for (std::size_t count : {1u, 2u, 3u, 4u, 5u, 7u, 8u, 12u, 13u, 20u, 32u, 47u}) {
      const std::size_t in_stride = count + 3, out_stride = count + 1;
      std::vector<double> columns(kQmfBands * in_stride);
      for (double& v : columns) v = dist(rng);
      std::vector<double> out(kQmfBands * out_stride, -7.0), before(out.size());
      for (std::size_t r = 0; r < kQmfBands; ++r)
        for (std::size_t n = 0; n < count; ++n) out[r * out_stride + n] = dist(rng);
      before = out;
      const double scale = 1023.9997;
      kernel->multiply_batch(out.data(), out_stride, matrix.data(), columns.data(), in_stride, count, scale);
      for (std::size_t n = 0; n < count; ++n) {
        for (std::size_t c = 0; c < kQmfBands; ++c) in[c] = columns[c * in_stride + n];
        scalar.multiply(want.data(), matrix.data(), in.data());
        for (std::size_t r = 0; r < kQmfBands; ++r) {
          const double expected = before[r * out_stride + n] + scale * want[r];
          const double v = out[r * out_stride + n];
          if (id == Id::scalar)
            EXPECT_EQ(v, expected) << "count " << count;  // both sum strictly in column order
          else
            EXPECT_NEAR(v, expected, 1e-13 * scale * (1.0 + std::fabs(want[r]))) << "count " << count;
        }
      }
      // Padding between the columns is never written.
      for (std::size_t r = 0; r < kQmfBands; ++r) EXPECT_EQ(out[r * out_stride + count], -7.0) << "count " << count;
    }
  }
}

}  // namespace
}  // namespace tavrin
