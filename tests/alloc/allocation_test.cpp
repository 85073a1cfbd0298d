#include "alloc/allocation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "alloc/plan_payload.h"
#include "bitstream/test_util.h"
#include "support/blocks.h"
#include "support/decoders.h"

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

TEST(Allocation, RejectsBadInput) {
  const PsychoAnalysis two{std::vector(4, std::vector<PsychoBandRecord>(64))}, three{std::vector(3, two.subframes[0])};
  const std::vector<std::tuple<std::size_t, AllocationConfig, const PsychoAnalysis*, std::string>> cases = {
      {6, {}, nullptr, "adaptive allocation requires 1..5 channels"},
      {2, {.abits_min = 12, .abits_max = 11}, nullptr, "adaptive ABITS range must be 8..26"},
      {2, {}, &three, "psycho override must contain 4 subframes"},
      // The allocator's own model configuration is checked even with an override.
      {2, {.psycho = {.ath_floor = 0}}, &two, "invalid psycho ATH floor"},
  };
  for (const auto& c : cases) {
    const std::vector<Block> blocks(std::get<0>(c), Block(1024, 1.0));
    EXPECT_EQ(test::message_of([&] { run(blocks, 100000, std::get<1>(c), false, std::get<2>(c)); }), std::get<3>(c));
  }
  EXPECT_EQ(test::message_of<std::runtime_error>([] { run(noise_frame({1.0}, 7), side_bits(1) - 1); }),
            "target payload budget is smaller than DTS side information");
}

// Heap and scan pick the same bands, and the budget is spent, never exceeded,
// exactly as the payload writer counts it.
TEST(Allocation, HeapAndScanAgreeAndSpendTheBudget) {
  const std::vector<std::tuple<std::vector<double>, std::uint32_t, std::uint64_t>> cases = {
      {{1.0}, 0, 3100}, {{1.0, 0.4}, 1, 17200}, {{0.2, 1.0, 0.6}, 1, 12000}, {{1, 1, 1, 1, 1}, 0, 20000},
      {{1.0, 0.7}, 1, 40000},  // bands reach ABITS 26
  };  // channel gains, psycho weighting, budget
  for (const auto& [gains, weighting, budget] : cases) {
    SCOPED_TRACE(budget);
    const std::vector<Block> blocks = noise_frame(gains, static_cast<std::uint32_t>(budget));
    const AllocationPlan heap = run(blocks, budget, {.psycho_weighting = weighting});
    const AllocationPlan scan = run(blocks, budget, {.psycho_weighting = weighting}, true);
    EXPECT_LE(heap.total_bits, budget);
    EXPECT_GT(heap.total_bits + 8, budget) << "budget left unspent";
    EXPECT_EQ(payload_bit_count(payload_from_plan(test::views(blocks), heap)), heap.total_bits);
    for (int s = 0; s < 4; ++s)
      for (std::size_t c = 0; c < gains.size(); ++c)
        for (int b = 0; b < 32; ++b) ASSERT_EQ(scan.subframes[s][c][b].abits, heap.subframes[s][c][b].abits);
  }
}

// Eligible means rms strictly above the threshold, here 2 * 0.5; silence codes nothing.
TEST(Allocation, SilenceAndStrictThreshold) {
  std::vector<Block> blocks(1, Block(1024, 0.0));
  const std::vector<std::pair<double, int>> bands = {{2.0, 26}, {1.0, 0}, {1.0001, 26}};  // amplitude, ABITS
  for (std::size_t b = 0; b < bands.size(); ++b)
    for (int k = 0; k < 8; ++k) blocks[0][256 + k * 32 + 2 + 3 * b] = k % 2 ? bands[b].first : -bands[b].first;
  for (bool scan : {false, true}) {
    EXPECT_EQ(run(std::vector<Block>(5, Block(1024, 0.0)), 50000, {}, scan).total_bits, side_bits(5));
    const auto plan = run(blocks, 100000, {.relative_silence_floor = 0.5}, scan);
    for (std::size_t b = 0; b < bands.size(); ++b) EXPECT_EQ(plan.subframes[1][0][2 + 3 * b].abits, bands[b].second);
  }
}

// One band outweighs all others in the override; without psycho weighting the ramp decides.
TEST(Allocation, WeightsComeFromThePsychoOverrideOrTheHighBandRamp) {
  const std::vector<Block> blocks = noise_frame({1.0, 1.0}, 5);
  PsychoAnalysis psycho{std::vector(4, std::vector(64, PsychoBandRecord{.weight = 1e-9}))};
  psycho.subframes[2][32 + 6].weight = 1e12;
  const std::uint64_t budget = side_bits(2) + 46 + 18 * 8;  // room for that band's 19 steps
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
    AllocationPlan plan = run(blocks, 6000, {.channel_fairness = strength});
    for (auto& sub : plan.subframes) sub.erase(sub.begin());  // the quiet channel alone
    EXPECT_TRUE(strength == 0.0 || count_allocation_bits(plan, 1) > previous) << strength;
    previous = count_allocation_bits(plan, 1);
  }
}

// Two bands far inside the scan's tie tolerance: the heap takes the larger
// gain, the scan the earlier band. Only one first step fits the budget.
TEST(Allocation, ScanSwitchSelectsTheSearch) {
  std::vector<Block> blocks(2, Block(1024, 0.0));
  for (int k = 0; k < 8; ++k) blocks[0][k * 32 + 4] = (blocks[0][k * 32 + 3] = k % 3 ? 2.5 : -4.0) * (1.0 + 1e-10);
  // Only a value beginning with "1" asks for the scan.
  for (const auto& [value, band] : std::vector<std::pair<const char*, int>>{{"1yes", 3}, {" 1", 4}, {nullptr, 4}}) {
    test::set_environment("TAVRIN_DTS_ALLOCATOR_SCAN", value);
    const AllocationPlan plan = allocate(test::views(blocks), side_bits(2) + 50, {}, nullptr);
    const auto& bands = plan.subframes[0][0];
    EXPECT_EQ((bands[3].abits == 8 ? 3 : 0) + (bands[4].abits == 8 ? 4 : 0), band) << (value ? value : "unset");
  }
}

}  // namespace
}  // namespace tavrin
