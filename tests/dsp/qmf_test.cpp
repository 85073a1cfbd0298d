#include "dsp/qmf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "bitstream/test_util.h"
#include "platform/cpu_features.h"

namespace tavrin {
namespace {

using Id = QmfKernelId;
using test::message_of;

std::vector<const QmfKernel*> offered_kernels() {
  std::vector<const QmfKernel*> kernels;
  for (Id id : {Id::scalar, Id::sse2, Id::avx2})
    if (const QmfKernel* k = qmf_kernel_by_id(id)) kernels.push_back(k);
  return kernels;
}

std::vector<double> noise(std::size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  std::vector<double> v(n);
  for (double& x : v) x = dist(rng);
  return v;
}

bool all_zero(const auto& values) {
  return std::all_of(values.begin(), values.end(), [](double v) { return v == 0.0; });
}

TEST(QmfKernel, SelectionByEnvironmentValueAndProcessor) {
  const struct {
    const char* env;
    bool sse2, avx2;
    Id expected;
  } cases[] = {
      {nullptr, true, true, Id::avx2}, {nullptr, true, false, Id::sse2}, {nullptr, false, false, Id::scalar},
      {"scalar", true, true, Id::scalar}, {"sse2", true, true, Id::sse2}, {"sse2", false, false, Id::scalar},
      {"avx2", true, false, Id::sse2}, {"avx2", false, false, Id::scalar},
      // Only the exact lower-case words count; anything else means the best.
      {"", true, true, Id::avx2}, {"SCALAR", true, true, Id::avx2}, {"scalar ", true, true, Id::avx2},
      {"AVX2", true, false, Id::sse2}, {"avx512", true, true, Id::avx2},
  };
  for (const auto& c : cases)
    EXPECT_EQ(select_qmf_kernel(c.env, c.sse2, c.avx2), c.expected)
        << (c.env ? c.env : "<unset>") << " sse2=" << c.sse2 << " avx2=" << c.avx2;
  // The process-wide choice follows the environment and never changes.
  const QmfKernel& chosen = qmf_kernel();
  EXPECT_EQ(chosen.id, select_qmf_kernel(std::getenv("TAVRIN_DTS_QMF_SIMD"), cpu_has_sse2(), cpu_has_avx2()));
  EXPECT_EQ(&qmf_kernel(), &chosen);
  EXPECT_EQ(qmf_kernel_by_id(Id::avx2) != nullptr, cpu_has_avx2());
}

TEST(QmfBank, DerivationWithEveryKernel) {
  const std::vector<double> silence(kQmfFrameSamples, 0.0);
  for (const QmfKernel* kernel : offered_kernels()) {
    SCOPED_TRACE(kernel->name);
    const auto bank = std::make_unique<QmfAnalysisBank>(qmf_perfect_prototype(), *kernel);
    EXPECT_NEAR(bank->gain, 1023.9997, 1e-3);
    EXPECT_GT(bank->max_basis_error, 1.5e-8);  // the table is only ~8 digits exact
    EXPECT_LT(bank->max_basis_error, 2.5e-8);
    for (int f = 0; f < 3; ++f) EXPECT_TRUE(all_zero(analyse_frame(*bank, silence.data(), *kernel).samples)) << f;
  }
  EXPECT_EQ(message_of([] { analyse_frame(*std::make_unique<QmfAnalysisBank>(), nullptr); }), "null PCM input");
}

TEST(QmfBank, DamagedPrototypesAndKernelsAreRefused) {
  const std::string table = "DTS perfect-reconstruction FIR table validation failed";
  const struct {
    std::function<void(std::vector<double>&)> damage;
    std::string message;
  } cases[] = {
      {[](std::vector<double>& h) { h[300] += 1e-12; }, table},
      {[](std::vector<double>& h) { h[511] = -h[511]; }, table},
      {[](std::vector<double>& h) { h[200] += 1e-4; h[311] -= 1e-4; },  // antisymmetric, not reconstructing
       "DTS QMF derived analysis bank failed basis validation"},
      {[](std::vector<double>& h) { std::fill(h.begin(), h.end(), 0.0); },
       "DTS QMF analysis normalization could not be derived"},
  };
  for (const auto& c : cases) {
    std::vector<double> h(qmf_perfect_prototype().begin(), qmf_perfect_prototype().end());
    c.damage(h);
    EXPECT_EQ(message_of<std::runtime_error>(
                  [&] { QmfAnalysisBank bank(QmfPrototype(h.data(), h.size()), qmf_kernel()); }),
              c.message);
  }
  QmfKernel zeroing = qmf_kernel();
  zeroing.multiply = [](double* out, const double*, const double*) { std::fill(out, out + kQmfBands, 0.0); };
  EXPECT_EQ(message_of<std::runtime_error>([&] { make_qmf_reference_synthesis(zeroing); }),
            "DTS QMF modulation inverse failed validation");
}

// What the decoder's interpolator makes of a subband impulse comes back from
// the bank as the same impulse 15 blocks later, and nothing anywhere else.
TEST(QmfBank, SynthesisedSubbandImpulseReturnsInItsBand15BlocksLater) {
  const auto bank = std::make_unique<QmfAnalysisBank>();
  const QmfKernel& kernel = qmf_kernel();
  const QmfReferenceSynthesis pristine = make_qmf_reference_synthesis(kernel);
  for (std::size_t band = 0; band < kQmfBands; ++band) {
    QmfReferenceSynthesis synthesis = pristine;
    QmfAnalysisBank analysis = *bank;
    double worst = 0.0;
    for (std::size_t block = 0; block < 40; ++block) {
      QmfVector in{}, pcm{};
      in[band] = block == 0 ? 1.0 : 0.0;
      qmf_synthesis_step(synthesis, qmf_perfect_prototype(), kernel, in.data(), pcm.data());
      const QmfVector out = analyse_block(analysis, pcm.data());
      for (std::size_t r = 0; r < kQmfBands; ++r)
        worst = std::max(worst, std::fabs(out[r] - (block == 15 && r == band ? 1.0 : 0.0)));
    }
    EXPECT_LE(worst, kQmfBasisTolerance) << "band " << band;
  }
}

// Frame analysis must be nothing but 32 block analyses: across frame
// boundaries and with the ring away from slot 0 (after 5 silent blocks).
TEST(QmfBank, FramesEqualOneContinuousBlockRunWithEveryKernel) {
  const auto derived = std::make_unique<QmfAnalysisBank>();
  const std::vector<double> pcm = noise(3 * kQmfFrameSamples, 11);
  const QmfVector zero{};
  const QmfKernel& scalar = *qmf_kernel_by_id(Id::scalar);
  auto by_blocks = std::make_unique<QmfAnalysisBank>(*derived);
  for (int i = 0; i < 5; ++i) analyse_block(*by_blocks, zero.data(), scalar);
  std::vector<double> reference;
  double peak = 0.0;
  for (std::size_t b = 0; b < 3 * kQmfBlocksPerFrame; ++b) {
    QmfVector block{};
    for (std::size_t c = 0; c < kQmfBands; ++c) block[c] = pcm[b * kQmfBands + c] * kQmfInputScale;
    for (double v : analyse_block(*by_blocks, block.data(), scalar)) {
      reference.push_back(v);
      peak = std::max(peak, std::fabs(v));
    }
  }
  for (const QmfKernel* kernel : offered_kernels()) {
    SCOPED_TRACE(kernel->name);
    auto by_frames = std::make_unique<QmfAnalysisBank>(*derived);
    for (int i = 0; i < 5; ++i) analyse_block(*by_frames, zero.data(), *kernel);
    // The scalar kernel forms the same sums in the same order: exact.
    const double tolerance = kernel->id == Id::scalar ? 0.0 : 1e-12 * peak;
    for (std::size_t f = 0; f < 3; ++f) {
      const SubbandBlock sb = analyse_frame(*by_frames, pcm.data() + f * kQmfFrameSamples, *kernel);
      for (std::size_t i = 0; i < kQmfFrameSamples; ++i)
        ASSERT_NEAR(sb.samples[i], reference[f * kQmfFrameSamples + i], tolerance) << "frame " << f << " at " << i;
    }
    EXPECT_EQ(by_frames->position, 5u);
  }
}

}  // namespace
}  // namespace tavrin
