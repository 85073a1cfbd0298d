#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "alloc/adpcm_rate.h"
#include "alloc/legacy_encoder.h"
#include "bitstream/test_util.h"
#include "support/blocks.h"

namespace tavrin {
namespace {

// A strong periodic tone in band 1 (where the greedy search stalls), a quieter band 5, faint noise.
std::vector<std::vector<double>> subband_frame(std::size_t channels, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> noise(0.0, 1.0);
  std::vector<std::vector<double>> frame(channels, std::vector<double>(1024));
  for (auto& block : frame)
    for (std::size_t i = 0; i < 1024; ++i) {
      const std::size_t band = i % 32;
      block[i] = noise(gen) * 100.0 / (1.0 + band);
      if (band == 1) block[i] += 1e6 * std::sin(2.0 * std::numbers::pi * static_cast<double>(i / 32) / 3.0);
      if (band == 5) block[i] += 1e4 * noise(gen);
    }
  return frame;
}

TEST(LegacyEncoder, ChecksAndHistoryFlag) {
  const auto three = subband_frame(3, 1), two = subband_frame(2, 2);
  const std::vector<std::vector<double>> silence(2, std::vector<double>(1024, 0.0));
  LegacyEncoderConfig config;
  LegacyEncoderState state;
  const auto encode = [&](const auto& blocks, std::uint32_t size, StreamParams stream = {48000, 768000}) {
    return encode_legacy_frame(test::views(blocks), 2, stream, size, config, state);
  };
  EXPECT_EQ(test::message_of([&] { encode(three, 2048); }), "AMODE primary-channel count mismatch");
  config.allocation.reserved_bits = 100 * 8 - 104;  // the budget must exceed the 104 header bits plus this
  EXPECT_EQ(test::message_of([&] { encode(two, 100); }), "frame too small for rate-optimized ADPCM DTS Core header");
  config.allocation.reserved_bits = 64;
  // The dispatcher: span24 only for a production-candidate stream it serves.
  const Span24Config span24;
  Span24State span24_state;
  struct Route {
    StreamParams stream;
    bool candidate;
    FrameEncoderKind kind;
  };
  for (const Route& r : {Route{{48000, 768000}, true, FrameEncoderKind::span24},
                         Route{{44100, 1411200}, true, FrameEncoderKind::span24},
                         Route{{48000, 768000}, false, FrameEncoderKind::legacy_adpcm},
                         Route{{32000, 768000}, true, FrameEncoderKind::legacy_adpcm},
                         Route{{48000, 512000}, true, FrameEncoderKind::legacy_adpcm}}) {
    const DispatchedFrame d =
        dispatch_stereo_frame(test::views(two), 2, r.stream, 2048, config, state, span24, span24_state, r.candidate);
    EXPECT_EQ(d.kind, r.kind) << r.stream.sample_rate << " " << r.stream.bitrate << " " << r.candidate;
    EXPECT_EQ(d.frame.bytes.size(), 2048u);
  }
  state = LegacyEncoderState{};
  // Silence codes no band: header and side information only.
  const CoreFrame quiet = encode(silence, 2048);
  EXPECT_EQ(quiet.payload_bits, 104u + 91u + 813u * 2u);
  EXPECT_EQ(quiet.header.hflag, 0);
  EXPECT_EQ(config.allocation.psycho_weighting, 1u);  // the model's weights, not the ramp
  for (std::uint32_t size : {2229u, 4096u}) {
    const CoreFrame made = encode(two, size, {44100, 1411200});
    EXPECT_EQ(made.bytes.size(), size);
    EXPECT_LE(made.payload_bits + 64, size * 8) << size;
    EXPECT_EQ(made.header.hflag, 1);
  }
  state.adpcm.reset_pending = true;
  EXPECT_EQ(encode(two, 2048).header.hflag, 0);
  EXPECT_EQ(encode(two, 2048).header.hflag, 1);
}

// The greedy search leaves the tone short; the refinement moves bits to it,
// for less weighted error, within the budget, with truthful quantizers.
TEST(RateRefinement, UnsticksThePeriodicToneWithinTheBudget) {
  const auto frame = subband_frame(2, 3);
  const auto ch = test::views(frame);
  const AllocationConfig config = stereo_allocation_config();
  AllocationPlan plan = allocate(ch, 15000, config, nullptr);
  const auto weighted_error = [&plan] {
    double sum = 0.0;
    for (const auto& sub : plan.subframes)
      for (const auto& bands : sub)
        for (const auto& b : bands) {
          EXPECT_TRUE(b.quantizer.abits == b.abits && (b.abits == 0 || b.abits >= 8));
          sum += b.weight * b.distortion;
        }
    return sum;
  };
  const double before = weighted_error();
  const unsigned tone = plan.subframes[0][0][1].abits;
  EXPECT_GT(refine_allocation(ch, plan, 15000, config), 0u);
  EXPECT_GT(plan.subframes[0][0][1].abits, tone);
  EXPECT_LE(plan.total_bits, 15000u);
  EXPECT_EQ(count_allocation_bits(plan, 2), plan.total_bits);
  EXPECT_LT(weighted_error(), before);
}

}  // namespace
}  // namespace tavrin
