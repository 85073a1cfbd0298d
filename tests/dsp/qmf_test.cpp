#include "dsp/qmf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavrin {
namespace {

std::string runtime_message(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "<no runtime_error>";
}

std::vector<const QmfKernel*> offered_kernels() {
  std::vector<const QmfKernel*> kernels;
  for (QmfKernelId id : {QmfKernelId::scalar, QmfKernelId::sse2, QmfKernelId::avx2})
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

TEST(QmfPrototype, MatchesTheStandardsTable) {
  const auto& h = qmf_perfect_prototype();
  ASSERT_EQ(h.size(), 512u);
  const std::vector<std::pair<std::size_t, double>> check = {
      {0, 1.135985195e-10},     {1, 7.018770981e-11},     {2, -1.608403011e-08},    {3, -5.083275667e-08},
      {4, -1.543309907e-07},    {5, -3.961981463e-07},    {250, -1.849545911e-02},  {251, -1.863567345e-02},
      {252, -1.874836907e-02},  {253, -1.883326657e-02},  {254, -1.889026538e-02},  {255, -1.891860925e-02},
      {256, 1.891860925e-02},   {257, 1.889026538e-02},   {258, 1.883326657e-02},   {259, 1.874836907e-02},
      {260, 1.863567345e-02},   {261, 1.849545911e-02},
  };
  for (const auto& [i, v] : check) EXPECT_EQ(h[i], v) << i;
  double pair_sum = 0.0, energy = 0.0;
  for (std::size_t i = 0; i < 256; ++i) {
    EXPECT_EQ(h[i], -h[511 - i]) << i;
    pair_sum += h[i] + h[511 - i];
  }
  for (double v : h) energy += v * v;
  EXPECT_EQ(pair_sum, 0.0);
  EXPECT_NEAR(energy, 0.0156250050, 1e-10);
}

TEST(QmfBank, DerivationIsNormalisedAndPassesBasisValidationWithEveryKernel) {
  for (const QmfKernel* kernel : offered_kernels()) {
    SCOPED_TRACE(kernel->name);
    const auto bank = std::make_unique<QmfAnalysisBank>(qmf_perfect_prototype(), *kernel);
    EXPECT_NEAR(bank->gain, 1023.9997, 1e-3);
    EXPECT_GT(bank->max_basis_error, 1.5e-8);  // the table is only ~8 digits exact
    EXPECT_LT(bank->max_basis_error, 2.5e-8);
    EXPECT_EQ(bank->position, 0u);
    for (const auto& block : bank->history)
      EXPECT_TRUE(std::all_of(block.begin(), block.end(), [](double v) { return v == 0.0; }));
  }
}

TEST(QmfBank, DamagedPrototypesAreRefused) {
  struct Case {
    const char* what;
    std::function<void(std::vector<double>&)> damage;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"one tap off by 1e-12", [](std::vector<double>& h) { h[300] += 1e-12; },
       "DTS perfect-reconstruction FIR table validation failed"},
      {"last tap sign flipped", [](std::vector<double>& h) { h[511] = -h[511]; },
       "DTS perfect-reconstruction FIR table validation failed"},
      {"antisymmetric but not perfect-reconstruction",
       [](std::vector<double>& h) {
         h[200] += 1e-4;
         h[311] -= 1e-4;
       },
       "DTS QMF derived analysis bank failed basis validation"},
      {"all zero", [](std::vector<double>& h) { std::fill(h.begin(), h.end(), 0.0); },
       "DTS QMF analysis normalization could not be derived"},
  };
  for (const Case& c : cases) {
    std::vector<double> h(qmf_perfect_prototype().begin(), qmf_perfect_prototype().end());
    c.damage(h);
    EXPECT_EQ(runtime_message([&] { QmfAnalysisBank bank(QmfPrototype(h.data(), h.size()), qmf_kernel()); }),
              c.message)
        << c.what;
  }
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

TEST(QmfBank, SilenceGivesExactZeros) {
  for (const QmfKernel* kernel : offered_kernels()) {
    const auto bank = std::make_unique<QmfAnalysisBank>();
    const std::vector<double> silence(kQmfFrameSamples, 0.0);
    for (int f = 0; f < 3; ++f) {
      const SubbandBlock sb = analyse_frame(*bank, silence.data(), *kernel);
      EXPECT_TRUE(std::all_of(sb.samples.begin(), sb.samples.end(), [](double v) { return v == 0.0; }))
          << kernel->name << " frame " << f;
    }
  }
}

// Frame analysis must be nothing but 32 block analyses: across frame
// boundaries and with the ring away from slot 0 (after 5 silent blocks).
TEST(QmfBank, FramesEqualOneContinuousBlockRunWithEveryKernel) {
  const auto derived = std::make_unique<QmfAnalysisBank>();
  const std::vector<double> pcm = noise(3 * kQmfFrameSamples, 11);
  const QmfVector zero{};
  const QmfKernel& scalar = *qmf_kernel_by_id(QmfKernelId::scalar);

  auto by_blocks = std::make_unique<QmfAnalysisBank>(*derived);
  for (int i = 0; i < 5; ++i) analyse_block(*by_blocks, zero.data(), scalar);
  std::vector<double> reference;
  for (std::size_t b = 0; b < 3 * kQmfBlocksPerFrame; ++b) {
    QmfVector block{};
    for (std::size_t c = 0; c < kQmfBands; ++c) block[c] = pcm[b * kQmfBands + c] * kQmfInputScale;
    const QmfVector out = analyse_block(*by_blocks, block.data(), scalar);
    reference.insert(reference.end(), out.begin(), out.end());
  }
  double peak = 0.0;
  for (double v : reference) peak = std::max(peak, std::fabs(v));

  for (const QmfKernel* kernel : offered_kernels()) {
    SCOPED_TRACE(kernel->name);
    auto by_frames = std::make_unique<QmfAnalysisBank>(*derived);
    for (int i = 0; i < 5; ++i) analyse_block(*by_frames, zero.data(), *kernel);
    for (std::size_t f = 0; f < 3; ++f) {
      const SubbandBlock sb = analyse_frame(*by_frames, pcm.data() + f * kQmfFrameSamples, *kernel);
      for (std::size_t i = 0; i < kQmfFrameSamples; ++i) {
        const double want = reference[f * kQmfFrameSamples + i];
        if (kernel->id == QmfKernelId::scalar)
          ASSERT_EQ(sb.samples[i], want) << "frame " << f << " index " << i;  // same sums in the same order
        else
          ASSERT_NEAR(sb.samples[i], want, 1e-12 * peak) << "frame " << f << " index " << i;
      }
    }
    EXPECT_EQ(by_frames->position, 5u);
  }
}

TEST(QmfBank, NullInputIsAnInvalidArgument) {
  const auto bank = std::make_unique<QmfAnalysisBank>();
  try {
    analyse_frame(*bank, nullptr);
    FAIL() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "null PCM input");
  }
}

}  // namespace
}  // namespace tavrin
