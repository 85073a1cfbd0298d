#include "dsp/quantizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "bitstream/bit_writer.h"
#include "bitstream/test_util.h"
#include "dsp/quant_tables.h"
#include "dsp/qmf_kernel.h"
#include "platform/cpu_features.h"

namespace tavrin {
namespace {

using test::message_of;

double levels(unsigned abits) { return std::ldexp(1.0, static_cast<int>(abits) - 4) - 1.0; }

TEST(Quantizer, AccessorsAndMessages) {
  const double one = 1.0, too_big = levels(26) * kStepSize[26] * kScaleFactor6[62] * 1.0001;
  BitWriter w;  // the NFE writer checks before it writes
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[] { scale_value(63); }, "invalid DTS 6-bit scale-factor index"},
      {[] { step_size(27); }, "invalid DTS lossy ABITS"},
      {[] { nfe_width(7); }, "NFE direct coding requires ABITS 8..26"},
      {[] { choose_baseline_quantizer(nullptr, 1, 8, 26); }, "null samples"},
      {[&] { choose_baseline_quantizer(&one, 1, 7, 26); }, "baseline ABITS range must be within 8..26"},
      {[] { baseline_quantizer_for_peak(1.0, 8, 27); }, "baseline ABITS range must be within 8..26"},
      {[&] { choose_baseline_quantizer(&too_big, 1, 26, 26); }, "DTS baseline quantizer cannot represent subband peak"},
      {[] { dequantize(0, QuantizerChoice{7, 0, 1, 1, 1}); }, "direct NFE quantizer requires ABITS 8..26"},
      {[] { dequantize(16, QuantizerChoice{8, 0, 1, 1, 1}); }, "quantization index outside DTS NFE range"},
      {[&] { write_nfe(w, 16, 8); }, "NFE quantization index out of signed range"},
      {[&] { write_nfe(w, 0, 7); }, "NFE direct coding requires ABITS 8..26"},
  };
  for (const auto& [f, want] : cases) EXPECT_EQ(message_of(f), want);
  EXPECT_EQ(w.bit_count(), 0u);
  EXPECT_EQ(step_size(8), 0.19000005722045898);
  EXPECT_EQ(step_size(26), 5.0067901611328125e-06);
  EXPECT_EQ(nfe_width(8), 5u);
  EXPECT_EQ(nfe_width(26), 23u);
  EXPECT_NO_THROW(choose_baseline_quantizer(nullptr, 0, 8, 26));
}

// The lookup against the plain definition (the first ABITS, then the smallest
// scale, that fit the peak) exactly on, just below and just above every scale
// of every ABITS; the duplicate scales (2, 2 and 3, 3) must give the first index.
TEST(Quantizer, ChoiceMatchesLinearScanOnEveryBoundary) {
  const auto scan = [](double peak, unsigned low, unsigned high) -> std::pair<unsigned, unsigned> {
    for (unsigned a = low; a <= high; ++a)
      for (unsigned s = 0; s < kScaleFactor6Count; ++s)
        if (kScaleFactor6[s] >= peak / (levels(a) * kStepSize[a])) return {a, s};
    return {0, 0};
  };
  for (unsigned a = 8; a <= 26; ++a) {
    for (unsigned s = 0; s < kScaleFactor6Count; ++s) {
      const double on = kScaleFactor6[s] * levels(a) * kStepSize[a];
      for (const double peak : {on, std::nextafter(on, 0.0), std::nextafter(on, 1e300)}) {
        for (const unsigned high : {a, 26u}) {
          const auto [want_a, want_s] = scan(peak, a, high);
          if (want_a == 0) {
            EXPECT_THROW(baseline_quantizer_for_peak(peak, a, high), std::invalid_argument);
            continue;
          }
          // The sign of a sample must not matter, nor a NaN among them.
          const double samples[] = {peak * 0.25, -peak, NAN};
          // Nor where the table search starts.
          for (const QuantizerChoice& q :
               {baseline_quantizer_for_peak(peak, a, high), choose_baseline_quantizer(samples, 3, a, high),
                baseline_quantizer_for_peak(peak, a, high, 0), baseline_quantizer_for_peak(peak, a, high, s),
                baseline_quantizer_for_peak(peak, a, high, s > 0 ? s - 1 : 1),
                baseline_quantizer_for_peak(peak, a, high, 62)}) {
            ASSERT_EQ(q.abits, want_a) << peak;
            ASSERT_EQ(q.scale_index, want_s) << peak << " abits " << a;
            EXPECT_EQ(q.scale, kScaleFactor6[want_s]);
            EXPECT_EQ(q.step, kStepSize[want_a]);
            EXPECT_EQ(q.quantum, q.scale * q.step);
          }
          // The division-free lookup, right on the boundaries where its
          // product could round the other way.
          if (high == a) {
            for (const unsigned hint : {kNoScaleHint, s, 0u, 62u}) {
              const QuantizerChoice q = baseline_quantizer_by_reciprocal(peak, a, hint, 1.0 / (levels(a) * kStepSize[a]));
              ASSERT_EQ(q.scale_index, want_s) << peak << " abits " << a << " hint " << hint;
              ASSERT_EQ(q.quantum, kScaleFactor6[want_s] * kStepSize[a]);
            }
          }
        }
      }
    }
  }
  for (const double silent : {0.0, 1e-18, -1.0, double{NAN}}) {
    const QuantizerChoice q = baseline_quantizer_for_peak(silent, 8, 26);
    EXPECT_EQ(q.abits, 0u);
    EXPECT_EQ(q.quantum, 0.0);
  }
}

// Against libm: round half to even, clamp to the index range, NaN to 0.
TEST(Quantizer, RoundingMatchesLibmEverywhere) {
  // The AVX2 error sum must agree bit for bit wherever it can run.
  std::vector<const QmfKernel*> kernels;
  for (const QmfKernelId id : {QmfKernelId::scalar, QmfKernelId::sse2, QmfKernelId::avx2})
    if (const QmfKernel* k = qmf_kernel_by_id(id)) kernels.push_back(k);
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> unit(-1.2, 1.2);
  for (unsigned a = 8; a <= 26; ++a) {
    const QuantizerChoice q = baseline_quantizer_for_peak(1000.0, a, a);
    const double top = levels(a);
    std::vector<double> units = {0.5, -0.5, 1.5, -1.5, 2.5, top - 0.5, top + 0.5, -top - 0.5, -top - 1.5,
                                 -0.0, 1e300, -1e300, INFINITY, -INFINITY, double{NAN}};
    for (int i = 0; i < 2000; ++i) units.push_back(unit(rng) * top);
    for (int i = 0; i < 200; ++i) units.push_back(std::floor(unit(rng) * top) + 0.5);  // exact ties
    for (const double u : units) {
      const double r = std::nearbyint(u);
      const double want = std::isnan(r) ? 0.0 : std::clamp(r, -top - 1.0, top);
      ASSERT_EQ(quantize(u * q.quantum, q), want) << "abits " << a << " units " << u;
    }
    EXPECT_EQ(dequantize(-static_cast<std::int32_t>(top) - 1, q), (-top - 1.0) * q.quantum);
    // The allocator's eight-sample error sum is quantize() sample by sample.
    for (std::size_t i = 0; i + 8 <= units.size(); i += 8) {
      double x[8], want = 0.0;
      for (std::size_t k = 0; k < 8; ++k) {
        x[k] = units[i + k] * q.quantum;
        const double d = x[k] - quantize(x[k], q) * q.quantum;
        want += d * d;
      }
      const double got = quantization_error<8>(x, q);
      ASSERT_TRUE(got == want || (std::isnan(got) && std::isnan(want))) << "abits " << a << " at " << i;
      for (const QmfKernel* k : kernels) {
        const double wide = k->quantization_error8(x, q.quantum, 1.0 / q.quantum, a);
        ASSERT_TRUE(wide == want || (std::isnan(wide) && std::isnan(want))) << k->name << ", abits " << a << " at " << i;
      }
    }
  }
  // Samples whose product with the reciprocal of the quantum rounds the other
  // way from their quotient: the error sum must still follow the quotient.
  const QuantizerChoice q12 = baseline_quantizer_for_peak(1000.0, 12, 12);
  const double near_ties[8] = {466.32781076431269,  -485.85986566543573, 476.09383821487421, -212.41109704971311,
                               -241.70917940139768, -446.79575586318964, 466.32781076431269, 0.0};
  double want = 0.0;
  for (double v : near_ties) want += (v - quantize(v, q12) * q12.quantum) * (v - quantize(v, q12) * q12.quantum);
  EXPECT_EQ(quantization_error<8>(near_ties, q12), want);
  for (const QmfKernel* k : kernels) EXPECT_EQ(k->quantization_error8(near_ties, q12.quantum, 1.0 / q12.quantum, 12), want);
  // Block-code ABITS: the error sum follows quantize_index, ties and the
  // clamp included.
  for (unsigned a = 1; a < 8; ++a) {
    const QuantizerChoice q = quantizer_at(1000.0, a);
    const double reach = static_cast<double>(kBlockCodeReach[a]);
    for (int i = 0; i < 200; ++i) {
      double x[8], want = 0.0;
      for (double& v : x) {
        v = (i % 2 == 0 ? unit(rng) * (reach + 1.0) : std::floor(unit(rng) * reach) + 0.5) * q.quantum;
        const double d = v - quantize_index(v, q) * q.quantum;
        want += d * d;
      }
      ASSERT_EQ(quantization_error<8>(x, q), want) << "abits " << a;
    }
  }
  const double plain[8] = {1, -2, 3, 0.5, 0, -0.25, 7, 1e-3};
  EXPECT_EQ(quantization_error<8>(plain, QuantizerChoice{}), 1 + 4 + 9 + 0.25 + 0.0625 + 49 + 1e-6);
  EXPECT_EQ(quantize(123.0, QuantizerChoice{}), 0);
  EXPECT_EQ(dequantize(5, QuantizerChoice{}), 0.0);
}

TEST(Quantizer, WritesNfeFieldsAndDsync) {
  const struct {
    std::int32_t index;
    unsigned abits;
    std::uint32_t code;  // ABITS - 3 bits wide
  } cases[] = {{-16, 8, 0x10}, {15, 8, 0x0F}, {-1, 8, 0x1F}, {0, 12, 0},
               {-4194304, 26, 0x400000}, {4194303, 26, 0x3FFFFF}, {-1, 26, 0x7FFFFF}};
  for (const auto& c : cases) {
    BitWriter w;
    write_nfe(w, c.index, c.abits);
    ASSERT_EQ(w.bit_count(), c.abits - 3);
    test::BitReader r{w.bytes()};
    EXPECT_EQ(r.read(c.abits - 3), c.code) << c.index << " @" << c.abits;
  }
  BitWriter w;
  write_dsync(w);
  EXPECT_EQ(w.bytes(), (std::vector<std::uint8_t>{0xFF, 0xFF}));
}

}  // namespace
}  // namespace tavrin
