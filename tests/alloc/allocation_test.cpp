#include "alloc/allocation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavrin {
namespace {

using Block = std::vector<double>;

std::vector<const double*> views(const std::vector<Block>& blocks) {
  std::vector<const double*> out;
  for (const Block& b : blocks) out.push_back(b.data());
  return out;
}

// Noise falling off with band, in the analysis bank's units; `gain` per channel.
std::vector<Block> noise_frame(const std::vector<double>& gain, std::uint32_t seed) {
  std::vector<Block> blocks;
  for (double g : gain) {
    Block block(1024);
    for (int i = 0; i < 1024; ++i) {
      seed = seed * 1664525u + 1013904223u;
      block[i] = g * 3000.0 * std::exp(-(i % 32) / 6.0) * (1.0 + 0.3 * (i / 256)) * ((seed >> 8) / 16777216.0 - 0.5);
    }
    blocks.push_back(block);
  }
  return blocks;
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

template <typename E>
std::string failure(const std::function<void()>& call) {
  try {
    call();
  } catch (const E& e) {
    return e.what();
  }
  return "no failure";
}

TEST(Allocation, RejectsBadInputWithExactMessages) {
  struct Case {
    std::size_t channels;
    std::function<void(AllocationConfig&)> change;
    int override_subframes;  // -1: no override
    std::size_t override_channels;
    std::string message;
  };
  const auto none = [](AllocationConfig&) {};
  const std::string range = "adaptive ABITS range must be 8..26";
  const std::vector<Case> cases = {
      {0, none, -1, 0, "adaptive allocation requires 1..5 channels"},
      {6, none, -1, 0, "adaptive allocation requires 1..5 channels"},
      {2, [](AllocationConfig& c) { c.abits_min = 7; }, -1, 0, range},
      {2, [](AllocationConfig& c) { c.abits_max = 27; }, -1, 0, range},
      {2, [](AllocationConfig& c) { c.abits_min = 12, c.abits_max = 11; }, -1, 0, range},
      {2, [](AllocationConfig& c) { c.relative_silence_floor = 1.0; }, -1, 0, "invalid relative silence floor"},
      {2, [](AllocationConfig& c) { c.high_band_weight = 0.0; }, -1, 0, "invalid high-band weight"},
      {2, [](AllocationConfig& c) { c.channel_fairness = 2.01; }, -1, 0, "invalid channel fairness strength"},
      {2, none, 3, 2, "psycho override must contain 4 subframes"},
      {2, none, 4, 1, "psycho override channel count mismatch"},
      // The allocator's own psycho configuration is checked even with an override.
      {2, [](AllocationConfig& c) { c.psycho.ath_floor = 0; }, 4, 2, "invalid psycho ATH floor"},
  };
  for (const Case& tc : cases) {
    AllocationConfig cfg = stereo_allocation_config();
    tc.change(cfg);
    const std::vector<Block> blocks(tc.channels, Block(1024, 1.0));
    PsychoAnalysis psycho;
    psycho.subframes.assign(std::max(tc.override_subframes, 0), std::vector<PsychoBandRecord>(tc.override_channels * 32));
    const PsychoAnalysis* override_analysis = tc.override_subframes >= 0 ? &psycho : nullptr;
    EXPECT_EQ(failure<std::invalid_argument>([&] { allocate_with_scan(views(blocks), 1e5, cfg, override_analysis, 0); }),
              tc.message);
  }
}

TEST(Allocation, SideInformationBoundsTheBudget) {
  for (std::size_t channels : {1u, 2u, 5u}) {
    const std::vector<Block> blocks = noise_frame(std::vector<double>(channels, 1.0), 7);
    EXPECT_EQ(failure<std::runtime_error>(
                  [&] { allocate_with_scan(views(blocks), side_bits(channels) - 1, {}, nullptr, false); }),
              "target payload budget is smaller than DTS side information");
    // Digital silence with ample budget spends nothing beyond side information.
    for (bool scan : {false, true}) {
      const std::vector<Block> silent(channels, Block(1024, 0.0));
      const AllocationPlan plan = allocate_with_scan(views(silent), 50000, {}, nullptr, scan);
      EXPECT_EQ(plan.total_bits, side_bits(channels));
      EXPECT_EQ(coded_bits(plan), 0u);
      EXPECT_EQ(plan.perceptual_error, 0.0);
    }
  }
}

TEST(Allocation, CountsAndShapeChecks) {
  AllocationPlan plan;
  plan.subframes.assign(4, std::vector<std::vector<AllocationBand>>(2, std::vector<AllocationBand>(32)));
  plan.subframes[1][0][3].abits = 8;    // 46 bits
  plan.subframes[3][1][31].abits = 26;  // 190 bits
  EXPECT_EQ(count_allocation_bits(plan, 2), 1717u + 46u + 190u);

  struct Case {
    std::function<void(AllocationPlan&)> damage;
    std::string count_message, error_message;
  };
  const std::vector<Case> cases = {
      {[](AllocationPlan& p) { p.subframes.pop_back(); }, "allocation subframe count mismatch",
       "psycho/MSE subframe mismatch"},
      {[](AllocationPlan& p) { p.subframes[2].pop_back(); }, "allocation channel count mismatch",
       "psycho/MSE channel mismatch"},
      {[](AllocationPlan& p) { p.subframes[3][1].resize(31); }, "allocation band count mismatch",
       "psycho/MSE band mismatch"},
  };
  PsychoAnalysis psycho;
  psycho.subframes.assign(4, std::vector<PsychoBandRecord>(64));
  for (const Case& tc : cases) {
    AllocationPlan damaged = plan;
    tc.damage(damaged);
    EXPECT_EQ(failure<std::runtime_error>([&] { count_allocation_bits(damaged, 2); }), tc.count_message);
    EXPECT_EQ(failure<std::runtime_error>([&] { perceptual_error(psycho, damaged); }), tc.error_message);
  }
}

// Over a sweep of budgets: heap and scan pick the same bands, the budget is
// spent but never exceeded, the total recounts, and the weighted error never
// grows with the budget.
TEST(Allocation, HeapAndScanAgreeAndSpendTheBudget) {
  struct Case {
    std::vector<double> gains;
    std::uint32_t psycho;
    std::uint64_t first, last;
  };
  const std::vector<Case> cases = {
      {{1.0}, 0, 2000, 6000},
      {{1.0, 0.4}, 1, 4000, 30000},
      {{0.2, 1.0, 0.6}, 1, 12000, 12000},
      {{1, 1, 1, 1, 1}, 0, 20000, 20000},
      {{1.0, 0.7}, 1, 40000, 40000},  // bands reach ABITS 26
  };
  for (const Case& tc : cases) {
    const std::vector<Block> blocks = noise_frame(tc.gains, static_cast<std::uint32_t>(tc.last));
    AllocationConfig cfg = stereo_allocation_config();
    cfg.psycho_weighting = tc.psycho;
    double previous = INFINITY;
    for (std::uint64_t budget = tc.first; budget <= tc.last; budget += 1100) {
      const AllocationPlan heap = allocate_with_scan(views(blocks), budget, cfg, nullptr, false);
      const AllocationPlan scan = allocate_with_scan(views(blocks), budget, cfg, nullptr, true);
      EXPECT_LE(heap.total_bits, budget);
      EXPECT_GT(heap.total_bits + 8, budget) << "budget left unspent";
      EXPECT_EQ(heap.total_bits, side_bits(tc.gains.size()) + coded_bits(heap));
      EXPECT_EQ(scan.total_bits, heap.total_bits);
      EXPECT_DOUBLE_EQ(scan.perceptual_error, heap.perceptual_error);
      EXPECT_LE(heap.perceptual_error, previous) << budget;
      previous = heap.perceptual_error;
      for (int s = 0; s < 4; ++s)
        for (std::size_t c = 0; c < tc.gains.size(); ++c)
          for (int b = 0; b < 32; ++b)
            ASSERT_EQ(scan.subframes[s][c][b].abits, heap.subframes[s][c][b].abits) << budget << " " << s << c << b;
    }
  }
}

TEST(Allocation, StepRulesAndSilenceThreshold) {
  // ABITS min = max: one 78-bit step per band, then nothing.
  AllocationConfig one = stereo_allocation_config();
  one.abits_min = one.abits_max = 12;
  const AllocationPlan single = allocate_with_scan(views(noise_frame({1.0}, 3)), 1000000, one, nullptr, false);
  for (const auto& sub : single.subframes)
    for (const auto& band : sub[0]) EXPECT_EQ(band.abits, 12);
  EXPECT_EQ(single.total_bits, side_bits(1) + 128 * 78);

  // Eligibility is rms strictly above the threshold (here 2 * 0.5).
  AllocationConfig cfg = stereo_allocation_config();
  cfg.relative_silence_floor = 0.5;
  std::vector<Block> blocks(1, Block(1024, 0.0));
  const std::vector<std::pair<double, int>> bands = {{2.0, 26}, {1.0, 0}, {1.0001, 26}};  // amplitude, ABITS
  for (std::size_t b = 0; b < bands.size(); ++b)
    for (int k = 0; k < 8; ++k) blocks[0][256 + k * 32 + 2 + 3 * b] = k % 2 ? bands[b].first : -bands[b].first;
  for (bool scan : {false, true}) {
    const AllocationPlan plan = allocate_with_scan(views(blocks), 100000, cfg, nullptr, scan);
    for (std::size_t b = 0; b < bands.size(); ++b) EXPECT_EQ(plan.subframes[1][0][2 + 3 * b].abits, bands[b].second);
  }
}

TEST(Allocation, WeightsComeFromThePsychoOverrideOrTheHighBandRamp) {
  const std::vector<Block> blocks = noise_frame({1.0, 1.0}, 5);
  PsychoAnalysis psycho;
  PsychoBandRecord faint;
  faint.weight = 1e-9;
  psycho.subframes.assign(4, std::vector<PsychoBandRecord>(64, faint));
  psycho.subframes[2][32 + 6].weight = 1e12;
  AllocationConfig cfg = stereo_allocation_config();
  cfg.psycho_weighting = 1;
  const std::uint64_t budget = 1717 + 46 + 18 * 8;  // room for the favoured band's 19 steps
  EXPECT_EQ(allocate_with_scan(views(blocks), budget, cfg, &psycho, false).subframes[2][1][6].abits, 26);
  cfg.psycho_weighting = 0;
  const AllocationPlan ramp = allocate_with_scan(views(blocks), budget, cfg, &psycho, false);
  EXPECT_LT(ramp.subframes[2][1][6].abits, 26);
  EXPECT_EQ(ramp.subframes[2][1][20].weight, 1.0);
  EXPECT_EQ(ramp.subframes[2][1][31].weight, 0.65);
}

TEST(Allocation, FairnessFavoursTheLaggingChannel) {
  const std::vector<Block> blocks = noise_frame({1.0, 0.05}, 21);
  AllocationConfig cfg = stereo_allocation_config();
  std::uint64_t previous = 0;
  for (double strength : {0.0, 1.0, 2.0}) {
    cfg.channel_fairness = strength;
    const AllocationPlan plan = allocate_with_scan(views(blocks), 6000, cfg, nullptr, false);
    EXPECT_EQ(plan.total_bits, count_allocation_bits(plan, 2));
    EXPECT_TRUE(strength == 0.0 || coded_bits(plan, 1) > previous) << strength;
    previous = coded_bits(plan, 1);
  }
}

TEST(Allocation, ScanSwitchSelectsTheSearch) {
  // Two bands far inside the tie tolerance: the heap orders by exact gain,
  // the scan keeps the earlier band. Only one first step fits the budget.
  std::vector<Block> blocks(2, Block(1024, 0.0));
  for (int k = 0; k < 8; ++k) blocks[0][k * 32 + 4] = (blocks[0][k * 32 + 3] = k % 3 ? 2.5 : -4.0) * (1.0 + 1e-10);
  const std::uint64_t budget = side_bits(2) + 50;
  const auto picked = [](const AllocationPlan& plan) {
    EXPECT_EQ(coded_bits(plan), 46u);
    return plan.subframes[0][0][4].abits == 8 ? 4 : 3;
  };
  // allocate() takes the switch from the environment: a text beginning with "1";
  // allocate_with_scan() is told it.
  const std::vector<std::pair<const char*, int>> cases = {{"1", 3}, {"1yes", 3}, {"0", 4}, {"", 4}, {" 1", 4}};
  for (const auto& [value, band] : cases) {
    ::setenv("TAVRIN_DTS_ALLOCATOR_SCAN", value, 1);
    EXPECT_EQ(picked(allocate(views(blocks), budget, {}, nullptr)), band) << '"' << value << '"';
  }
  ::unsetenv("TAVRIN_DTS_ALLOCATOR_SCAN");
  EXPECT_EQ(picked(allocate(views(blocks), budget, {}, nullptr)), 4);
}

}  // namespace
}  // namespace tavrin
