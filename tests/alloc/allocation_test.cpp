#include "alloc/allocation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "alloc/plan_payload.h"
#include "bitstream/test_util.h"
#include "support/blocks.h"

namespace tavrin {
namespace {

using Block = std::vector<double>;

// Noise falling off with band, in the analysis bank's units; `gain` per channel.
std::vector<Block> noise_frame(const std::vector<double>& gain, std::uint32_t seed) {
  std::vector<Block> blocks(gain.size(), Block(1024));
  for (std::size_t c = 0; c < gain.size(); ++c)
    for (int i = 0; i < 1024; ++i) {
      seed = seed * 1664525u + 1013904223u;
      blocks[c][i] = gain[c] * 3000.0 * std::exp(-(i % 32) / 6.0) * (1.0 + 0.3 * (i / 256)) *
                     ((seed >> 8) / 16777216.0 - 0.5);
    }
  return blocks;
}

AllocationPlan run(const std::vector<Block>& blocks, std::uint64_t budget, const AllocationConfig& cfg = {},
                   bool scan = false, const PsychoAnalysis* psycho = nullptr) {
  return allocate_with_scan(test::views(blocks), budget, cfg, psycho, scan);
}

std::uint64_t side_bits(std::size_t channels) { return 91 + 813 * channels; }

std::uint64_t coded_bits(const AllocationPlan& plan, int only_channel = -1) {
  std::uint64_t bits = 0;
  for (const auto& sub : plan.subframes)
    for (std::size_t c = 0; c < sub.size(); ++c)
      for (const auto& band : sub[c])
        if (band.abits != 0 && (only_channel < 0 || static_cast<int>(c) == only_channel))
          bits += 8 * (band.abits - 3) + 6;
  return bits;
}

PsychoAnalysis shaped(std::size_t subframes, std::size_t channels, double weight = 0.0) {
  PsychoBandRecord record;
  record.weight = weight;
  return {std::vector<std::vector<PsychoBandRecord>>(subframes, std::vector<PsychoBandRecord>(channels * 32, record))};
}

TEST(Allocation, RejectsBadInputWithExactMessages) {
  const PsychoAnalysis good = shaped(4, 2), three_subframes = shaped(3, 2), mono = shaped(4, 1);
  const std::string range = "adaptive ABITS range must be 8..26";
  const std::vector<std::tuple<std::size_t, AllocationConfig, const PsychoAnalysis*, std::string>> cases = {
      {6, {}, nullptr, "adaptive allocation requires 1..5 channels"},
      {2, {.abits_min = 7}, nullptr, range},
      {2, {.abits_max = 27}, nullptr, range},
      {2, {.abits_min = 12, .abits_max = 11}, nullptr, range},
      {2, {.relative_silence_floor = 1.0}, nullptr, "invalid relative silence floor"},
      {2, {.high_band_weight = 0.0}, nullptr, "invalid high-band weight"},
      {2, {.channel_fairness = 2.01}, nullptr, "invalid channel fairness strength"},
      {2, {}, &three_subframes, "psycho override must contain 4 subframes"},
      {2, {}, &mono, "psycho override channel count mismatch"},
      // The allocator's own model configuration is checked even with an override.
      {2, {.psycho = {.ath_floor = 0}}, &good, "invalid psycho ATH floor"},
  };
  for (const auto& [channels, config, psycho, message] : cases)
    EXPECT_EQ(test::message_of<std::exception>([&] { run(std::vector<Block>(channels, Block(1024, 1.0)), 100000, config, false, psycho); }),
              message);
  EXPECT_EQ(test::message_of<std::exception>([] { run(noise_frame({1.0}, 7), side_bits(1) - 1); }),
            "target payload budget is smaller than DTS side information");
}

// Every consumer of a plan refuses one of the wrong shape.
TEST(Allocation, PlanShapeChecks) {
  AllocationPlan plan;
  plan.subframes.assign(4, std::vector<std::vector<AllocationBand>>(2, std::vector<AllocationBand>(32)));
  const std::vector<Block> two(2, Block(1024));
  EXPECT_EQ(test::message_of<std::exception>([&] { payload_from_plan({}, plan); }), "DTS adaptive payload requires 1..5 channels");
  const std::vector<std::tuple<std::function<void(AllocationPlan&)>, std::string, std::string, std::string>> cases = {
      {[](auto& p) { p.subframes.pop_back(); }, "allocation subframe count mismatch", "psycho/MSE subframe mismatch",
       "Phase-7 adaptive payload requires four subframes"},
      {[](auto& p) { p.subframes[2].pop_back(); }, "allocation channel count mismatch", "psycho/MSE channel mismatch",
       "adaptive allocation channel mismatch"},
      {[](auto& p) { p.subframes[3][1].resize(31); }, "allocation band count mismatch", "psycho/MSE band mismatch",
       "adaptive allocation band mismatch"},
  };
  for (const auto& [damage, count_message, error_message, payload_message] : cases) {
    AllocationPlan damaged = plan;
    damage(damaged);
    EXPECT_EQ(test::message_of<std::exception>([&] { count_allocation_bits(damaged, 2); }), count_message);
    EXPECT_EQ(test::message_of<std::exception>([&] { perceptual_error(shaped(4, 2), damaged); }), error_message);
    EXPECT_EQ(test::message_of<std::exception>([&] { payload_from_plan(test::views(two), damaged); }), payload_message);
  }
}

// Over a sweep of budgets: heap and scan pick the same bands, the budget is
// spent but never exceeded, the weighted error never grows with it, and the
// bits counted are the bits the payload writer emits.
TEST(Allocation, HeapAndScanAgreeAndSpendTheBudget) {
  // Channel gains, psycho weighting, first and last budget.
  const std::vector<std::tuple<std::vector<double>, std::uint32_t, std::uint64_t, std::uint64_t>> cases = {
      {{1.0}, 0, 2000, 6000},
      {{1.0, 0.4}, 1, 4000, 30000},
      {{0.2, 1.0, 0.6}, 1, 12000, 12000},
      {{1, 1, 1, 1, 1}, 0, 20000, 20000},
      {{1.0, 0.7}, 1, 40000, 40000},  // bands reach ABITS 26
  };
  for (const auto& [gains, weighting, first, last] : cases) {
    const std::vector<Block> blocks = noise_frame(gains, static_cast<std::uint32_t>(last));
    double previous = INFINITY;
    for (std::uint64_t budget = first; budget <= last; budget += 1100) {
      const AllocationPlan heap = run(blocks, budget, {.psycho_weighting = weighting});
      const AllocationPlan scan = run(blocks, budget, {.psycho_weighting = weighting}, true);
      EXPECT_LE(heap.total_bits, budget);
      EXPECT_GT(heap.total_bits + 8, budget) << "budget left unspent";
      EXPECT_EQ(heap.total_bits, side_bits(gains.size()) + coded_bits(heap));
      EXPECT_EQ(payload_bit_count(payload_from_plan(test::views(blocks), heap)), heap.total_bits);
      EXPECT_LE(heap.perceptual_error, previous) << budget;
      previous = heap.perceptual_error;
      for (int s = 0; s < 4; ++s)
        for (std::size_t c = 0; c < gains.size(); ++c)
          for (int b = 0; b < 32; ++b)
            ASSERT_EQ(scan.subframes[s][c][b].abits, heap.subframes[s][c][b].abits) << budget << " " << s << c << b;
    }
  }
}

TEST(Allocation, SilenceThresholdAndStepRules) {
  for (bool scan : {false, true})
    EXPECT_EQ(run(std::vector<Block>(5, Block(1024, 0.0)), 50000, {}, scan).total_bits, side_bits(5));
  // ABITS min = max: one 78-bit step (ABITS 12) per band, then nothing.
  EXPECT_EQ(run(noise_frame({1.0}, 3), 1000000, {.abits_min = 12, .abits_max = 12}).total_bits,
            side_bits(1) + 128 * 78);

  // Eligibility is rms strictly above the threshold (here 2 * 0.5).
  std::vector<Block> blocks(1, Block(1024, 0.0));
  const std::vector<std::pair<double, int>> bands = {{2.0, 26}, {1.0, 0}, {1.0001, 26}};  // amplitude, ABITS
  for (std::size_t b = 0; b < bands.size(); ++b)
    for (int k = 0; k < 8; ++k) blocks[0][256 + k * 32 + 2 + 3 * b] = k % 2 ? bands[b].first : -bands[b].first;
  for (bool scan : {false, true}) {
    const auto plan = run(blocks, 100000, {.relative_silence_floor = 0.5}, scan);
    for (std::size_t b = 0; b < bands.size(); ++b) EXPECT_EQ(plan.subframes[1][0][2 + 3 * b].abits, bands[b].second);
  }
}

TEST(Allocation, WeightsComeFromThePsychoOverrideOrTheHighBandRamp) {
  const std::vector<Block> blocks = noise_frame({1.0, 1.0}, 5);
  PsychoAnalysis psycho = shaped(4, 2, 1e-9);
  psycho.subframes[2][32 + 6].weight = 1e12;
  const std::uint64_t budget = side_bits(2) + 46 + 18 * 8;  // room for the favoured band's 19 steps
  EXPECT_EQ(run(blocks, budget, {.psycho_weighting = 1}, false, &psycho).subframes[2][1][6].abits, 26);
  const AllocationPlan ramp = run(blocks, budget, {}, false, &psycho);
  EXPECT_LT(ramp.subframes[2][1][6].abits, 26);
  EXPECT_EQ(ramp.subframes[2][1][20].weight, 1.0);
  EXPECT_EQ(ramp.subframes[2][1][31].weight, 0.65);
}

TEST(Allocation, FairnessFavoursTheLaggingChannel) {
  const std::vector<Block> blocks = noise_frame({1.0, 0.05}, 21);
  std::uint64_t previous = 0;
  for (double strength : {0.0, 1.0, 2.0}) {
    const AllocationPlan plan = run(blocks, 6000, {.channel_fairness = strength});
    EXPECT_TRUE(strength == 0.0 || coded_bits(plan, 1) > previous) << strength;
    previous = coded_bits(plan, 1);
  }
}

TEST(Allocation, ScanSwitchSelectsTheSearch) {
  // Two bands far inside the tie tolerance: the heap orders by exact gain,
  // the scan keeps the earlier band. Only one first step fits the budget.
  std::vector<Block> blocks(2, Block(1024, 0.0));
  for (int k = 0; k < 8; ++k) blocks[0][k * 32 + 4] = (blocks[0][k * 32 + 3] = k % 3 ? 2.5 : -4.0) * (1.0 + 1e-10);
  const auto picked = [&] {
    const AllocationPlan plan = allocate(test::views(blocks), side_bits(2) + 50, {}, nullptr);
    EXPECT_EQ(coded_bits(plan), 46u);
    return plan.subframes[0][0][4].abits == 8 ? 4 : 3;
  };
  // Only a value beginning with "1" asks for the scan.
  for (const auto& [value, band] : std::vector<std::pair<const char*, int>>{{"1yes", 3}, {" 1", 4}}) {
    ::setenv("TAVRIN_DTS_ALLOCATOR_SCAN", value, 1);
    EXPECT_EQ(picked(), band) << '"' << value << '"';
  }
  ::unsetenv("TAVRIN_DTS_ALLOCATOR_SCAN");
  EXPECT_EQ(picked(), 4);
}

}  // namespace
}  // namespace tavrin
