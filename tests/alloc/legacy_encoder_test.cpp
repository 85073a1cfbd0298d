#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "alloc/adpcm_rate.h"
#include "alloc/legacy_encoder.h"
#include "bitstream/test_util.h"
#include "support/blocks.h"

namespace tavrin {
namespace {

// One frame of subband samples per channel: a strong periodic tone in band 1
// (what makes the greedy search stall), a quieter band 5, faint noise.
std::vector<std::vector<double>> subband_frame(std::size_t channels, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> noise(0.0, 1.0);
  std::vector<std::vector<double>> frame(channels, std::vector<double>(1024));
  for (auto& block : frame)
    for (std::size_t i = 0; i < 1024; ++i) {
      const std::size_t band = i % 32;
      block[i] = noise(gen) * 1e6 * 1e-4 / (1.0 + band);
      if (band == 1) block[i] += 1e6 * std::sin(2.0 * M_PI * static_cast<double>(i / 32) / 3.0);
      if (band == 5) block[i] += 0.01 * 1e6 * noise(gen);
    }
  return frame;
}

TEST(LegacyEncoder, RejectsWithExactMessages) {
  const auto frame = subband_frame(3, 1);
  const auto three = test::views(frame), stereo = std::vector<const double*>(three.begin(), three.begin() + 2);
  LegacyEncoderConfig config;
  LegacyEncoderState state;
  const StreamParams stream{48000, 768000};
  EXPECT_EQ(test::message_of<std::exception>([&] { encode_legacy_frame(three, 2, stream, 2048, config, state); }),
            "AMODE primary-channel count mismatch");
  // The budget must exceed the 104 header bits plus the reserve.
  config.allocation.reserved_bits = 100 * 8 - 104;
  EXPECT_EQ(test::message_of<std::exception>([&] { encode_legacy_frame(stereo, 2, stream, 100, config, state); }),
            "frame too small for rate-optimized ADPCM DTS Core header");
  // The production-candidate path is refused, not silently replaced.
  EXPECT_EQ(test::message_of<std::exception>([&] { dispatch_stereo_frame(stereo, 2, stream, 2048, config, state, true); }),
            "the production-candidate 24+8 encoder is not available in this version yet");
}

TEST(LegacyEncoder, FramesFitTheirSizeAndCarryHistoryFromTheSecondFrame) {
  LegacyEncoderConfig config;
  LegacyEncoderState state;
  // Silence codes no band: the payload is header and side information only.
  const std::vector<std::vector<double>> silence(2, std::vector<double>(1024, 0.0));
  const CoreFrame quiet = encode_legacy_frame(test::views(silence), 2, {48000, 768000}, 2048, config, state);
  EXPECT_EQ(quiet.payload_bits, 104u + 91u + 813u * 2u);
  EXPECT_EQ(quiet.header.hflag, 0);
  for (std::uint32_t size : {2229u, 3763u, 4096u}) {
    const auto frame = subband_frame(2, size);
    const CoreFrame made = encode_legacy_frame(test::views(frame), 2, {44100, 1411200}, size, config, state);
    EXPECT_EQ(made.bytes.size(), size);
    EXPECT_LE(made.payload_bits + config.allocation.reserved_bits, size * 8) << size;
    EXPECT_EQ(made.header.hflag, 1);
  }
  EXPECT_EQ(config.allocation.psycho_weighting, 1u);
  // A reset makes the next frame start without history.
  state.adpcm.reset_pending = true;
  const auto frame = subband_frame(2, 9);
  EXPECT_EQ(encode_legacy_frame(test::views(frame), 2, {48000, 768000}, 2048, config, state).header.hflag, 0);
  EXPECT_FALSE(state.adpcm.reset_pending);
}

double weighted_error(const AllocationPlan& plan) {
  double sum = 0.0;
  for (const auto& sub : plan.subframes)
    for (const auto& ch : sub)
      for (const auto& b : ch) sum += b.weight * b.distortion;
  return sum;
}

// The greedy search leaves the periodic tone short; the refinement moves bits
// to it, only for less weighted error, within the budget, and keeps every
// band's quantizer truthful.
TEST(RateRefinement, UnsticksThePeriodicToneWithinTheBudget) {
  const AllocationConfig config = stereo_allocation_config();
  for (unsigned seed = 1; seed <= 4; ++seed) {
    SCOPED_TRACE(seed);
    const auto frame = subband_frame(2, seed);
    const auto ch = test::views(frame);
    const std::uint64_t budget = 9000 + 2000 * seed;
    AllocationPlan plan = allocate(ch, budget, config, nullptr);
    const double before = weighted_error(plan);
    const unsigned tone = plan.subframes[0][0][1].abits;
    EXPECT_GT(refine_allocation(ch, plan, budget, config), 0u);
    EXPECT_GT(plan.subframes[0][0][1].abits, tone);
    EXPECT_LE(plan.total_bits, budget);
    EXPECT_EQ(count_allocation_bits(plan, 2), plan.total_bits);
    EXPECT_LT(weighted_error(plan), before);
    for (const auto& sub : plan.subframes)
      for (const auto& bands : sub)
        for (const auto& b : bands) EXPECT_TRUE(b.quantizer.abits == b.abits && (b.abits == 0 || b.abits >= 8));
  }
}

}  // namespace
}  // namespace tavrin
