#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "alloc/adpcm_rate.h"
#include "alloc/legacy_encoder.h"
#include "alloc/plan_payload.h"
#include "bitstream/bit_writer.h"
#include "bitstream/frame_header.h"
#include "bitstream/primary_header.h"
#include "support/blocks.h"

namespace tavrin {
namespace {

// One frame of subband samples per channel: a strong periodic tone in band 1
// (what makes the greedy search stall), a few quieter bands, noise.
std::vector<std::vector<double>> subband_frame(std::size_t channels, unsigned seed, double level = 1e6) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> noise(0.0, 1.0);
  std::vector<std::vector<double>> frame(channels, std::vector<double>(1024));
  for (std::size_t c = 0; c < channels; ++c) {
    for (std::size_t i = 0; i < 1024; ++i) {
      const std::size_t band = i % 32, slot = i / 32;
      double v = noise(gen) * level * 1e-4 / (1.0 + band);
      if (band == 1) v += level * std::sin(2.0 * M_PI * static_cast<double>(slot) / 3.0);
      if (band == 5) v += 0.01 * level * noise(gen);
      frame[c][i] = v;
    }
  }
  return frame;
}


std::string failure_of(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

TEST(LegacyEncoder, RejectsWithExactMessages) {
  const auto stereo = subband_frame(2, 1);
  const auto three = subband_frame(3, 1);
  LegacyEncoderConfig config;
  LegacyEncoderState state;
  const StreamParams stream{48000, 768000};
  EXPECT_EQ(failure_of([&] { encode_legacy_frame(test::views(three), 2, stream, 2048, config, state); }),
            "AMODE primary-channel count mismatch");
  // The budget must exceed the 104 header bits plus the reserve.
  LegacyEncoderConfig greedy_reserve;
  greedy_reserve.allocation.reserved_bits = 100 * 8 - 104;
  EXPECT_EQ(failure_of([&] { encode_legacy_frame(test::views(stereo), 2, stream, 100, greedy_reserve, state); }),
            "frame too small for rate-optimized ADPCM DTS Core header");
  greedy_reserve.allocation.reserved_bits -= 1;
  EXPECT_NE(failure_of([&] { encode_legacy_frame(test::views(stereo), 2, stream, 100, greedy_reserve, state); }),
            "frame too small for rate-optimized ADPCM DTS Core header");
  AllocationPlan plan;
  EXPECT_EQ(failure_of([&] { payload_from_plan({}, plan); }), "DTS adaptive payload requires 1..5 channels");
  EXPECT_EQ(failure_of([&] { payload_from_plan(test::views(stereo), plan); }),
            "Phase-7 adaptive payload requires four subframes");
  plan.subframes.assign(4, std::vector<std::vector<AllocationBand>>(1, std::vector<AllocationBand>(32)));
  EXPECT_EQ(failure_of([&] { payload_from_plan(test::views(stereo), plan); }), "adaptive allocation channel mismatch");
  plan.subframes.assign(4, std::vector<std::vector<AllocationBand>>(2, std::vector<AllocationBand>(31)));
  EXPECT_EQ(failure_of([&] { payload_from_plan(test::views(stereo), plan); }), "adaptive allocation band mismatch");
  // The production-candidate path is refused, not silently replaced.
  EXPECT_EQ(failure_of([&] { dispatch_stereo_frame(test::views(stereo), 2, stream, 2048, config, state, true); }),
            "the production-candidate 24+8 encoder is not available in this version yet");
}

// The allocator's side-information count is exactly what the writers emit:
// the fixed primary header puts every selector at its largest value, so no
// scale adjustment field is ever written.
TEST(LegacyEncoder, AllocationCountEqualsWrittenBits) {
  for (std::size_t channels = 1; channels <= 5; ++channels) {
    SCOPED_TRACE(channels);
    const auto frame = subband_frame(channels, static_cast<unsigned>(channels));
    AllocationConfig config = stereo_allocation_config();
    for (std::uint64_t budget : {std::uint64_t{0}, std::uint64_t{9000}, std::uint64_t{40000}}) {
      const std::uint64_t silent_cost = 91 + 813 * channels;
      const AllocationPlan plan = allocate(test::views(frame), std::max(budget, silent_cost), config, nullptr);
      const FramePayload payload = payload_from_plan(test::views(frame), plan);
      EXPECT_EQ(payload_bit_count(payload), plan.total_bits);
      EXPECT_EQ(count_allocation_bits(plan, channels), plan.total_bits);
    }
  }
  BitWriter writer;
  write_primary_header(writer, legacy_primary_header(2), false);
  EXPECT_EQ(writer.bit_count(), 7u + 2u * 45u);
}

TEST(LegacyEncoder, FramesFitTheirSizeAndCarryHistoryFromTheSecondFrame) {
  LegacyEncoderConfig config;
  LegacyEncoderState state;
  for (std::uint32_t size : {2048u, 2229u, 3763u, 4096u}) {
    SCOPED_TRACE(size);
    const auto frame = subband_frame(2, size);
    const CoreFrame made = encode_legacy_frame(test::views(frame), 2, {44100, 1411200}, size, config, state);
    EXPECT_EQ(made.bytes.size(), size);
    EXPECT_LE(made.payload_bits + config.allocation.reserved_bits, size * 8);
    EXPECT_EQ(made.header.hflag, size == 2048u ? 0 : 1);
    EXPECT_EQ(made.header.filts, 1);
    EXPECT_EQ(made.bytes[0], 0x7F);
  }
  EXPECT_EQ(config.allocation.psycho_weighting, 1u);
  // A reset makes the next frame start without history.
  state.adpcm.reset_pending = true;
  const auto frame = subband_frame(2, 9);
  EXPECT_EQ(encode_legacy_frame(test::views(frame), 2, {48000, 768000}, 2048, config, state).header.hflag, 0);
  EXPECT_FALSE(state.adpcm.reset_pending);
}

TEST(LegacyEncoder, SilenceCodesNothingAndPassesBothChecks) {
  const std::vector<std::vector<double>> silence(2, std::vector<double>(1024, 0.0));
  LegacyEncoderConfig config;
  LegacyEncoderState state;
  const CoreFrame made = encode_legacy_frame(test::views(silence), 2, {48000, 768000}, 2048, config, state);
  for (const auto& sub : made.payload.subframes)
    for (const auto& ch : sub.abits)
      for (auto a : ch) EXPECT_EQ(a, 0);
  EXPECT_EQ(made.payload_bits, 104u + 91u + 813u * 2u);
}

double weighted_error(const AllocationPlan& plan) {
  double sum = 0.0;
  for (const auto& sub : plan.subframes)
    for (const auto& ch : sub)
      for (const auto& b : ch) sum += b.weight * b.distortion;
  return sum;
}

// The refinement may only trade bits for less weighted error, never spend
// more than the budget, and must keep every band's quantizer truthful.
TEST(RateRefinement, ImprovesWithinTheBudget) {
  const AllocationConfig config = stereo_allocation_config();
  for (unsigned seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE(seed);
    const auto frame = subband_frame(2, seed);
    const auto ch = test::views(frame);
    const std::uint64_t budget = 9000 + 2000 * seed;
    AllocationPlan plan = allocate(ch, budget, config, nullptr);
    const double before = weighted_error(plan);
    refine_allocation(ch, plan, budget, config);
    EXPECT_LE(plan.total_bits, budget);
    EXPECT_EQ(count_allocation_bits(plan, 2), plan.total_bits);
    EXPECT_LE(weighted_error(plan), before);
    for (const auto& sub : plan.subframes)
      for (const auto& bands : sub)
        for (const auto& b : bands) {
          EXPECT_EQ(b.quantizer.abits, b.abits);
          if (b.abits != 0) {
            EXPECT_GE(b.abits, config.abits_min);
          }
        }
  }
}

// A periodic tone whose 8-sample error does not fall at every step: the
// greedy search leaves it short, the refinement finds the bits.
TEST(RateRefinement, UnsticksAPeriodicTone) {
  const AllocationConfig config = stereo_allocation_config();
  const auto frame = subband_frame(2, 42, 4e6);
  const auto ch = test::views(frame);
  AllocationPlan plan = allocate(ch, 12000, config, nullptr);
  const unsigned greedy = plan.subframes[0][0][1].abits;
  EXPECT_GT(refine_allocation(ch, plan, 12000, config), 0u);
  EXPECT_GT(plan.subframes[0][0][1].abits, greedy);
}

}  // namespace
}  // namespace tavrin
