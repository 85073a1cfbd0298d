#include "alloc/allocation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavrin {
namespace {

using Block = std::vector<double>;
double& at(Block& block, int s, int k, int b) { return block[s * 256 + k * 32 + b]; }

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

template <typename E, typename F>
void expect_message(F&& call, const std::string& message) {
  try {
    call();
    ADD_FAILURE() << "no failure: " << message;
  } catch (const E& e) {
    EXPECT_EQ(e.what(), message);
  }
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
      {2, [](AllocationConfig& c) { c.relative_silence_floor = -1e-9; }, -1, 0, "invalid relative silence floor"},
      {2, [](AllocationConfig& c) { c.relative_silence_floor = 1.0; }, -1, 0, "invalid relative silence floor"},
      {2, [](AllocationConfig& c) { c.high_band_weight = 0.0; }, -1, 0, "invalid high-band weight"},
      {2, [](AllocationConfig& c) { c.high_band_weight = 1.5; }, -1, 0, "invalid high-band weight"},
      {2, [](AllocationConfig& c) { c.channel_fairness = -0.5; }, -1, 0, "invalid channel fairness strength"},
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
    if (tc.override_subframes >= 0)
      psycho.subframes.assign(tc.override_subframes, std::vector<PsychoBandRecord>(tc.override_channels * 32));
    expect_message<std::invalid_argument>(
        [&] { allocate_with_scan(views(blocks), 100000, cfg, tc.override_subframes >= 0 ? &psycho : nullptr, false); },
        tc.message);
  }
}

TEST(Allocation, SideInformationBoundsTheBudget) {
  for (std::size_t channels : {1u, 2u, 5u}) {
    const std::vector<Block> blocks = noise_frame(std::vector<double>(channels, 1.0), 7);
    expect_message<std::runtime_error>(
        [&] { allocate_with_scan(views(blocks), side_bits(channels) - 1, stereo_allocation_config(), nullptr, false); },
        "target payload budget is smaller than DTS side information");
    const AllocationPlan exact =
        allocate_with_scan(views(blocks), side_bits(channels), stereo_allocation_config(), nullptr, false);
    EXPECT_EQ(exact.total_bits, side_bits(channels));
    // Digital silence with ample budget spends nothing beyond side information.
    for (bool scan : {false, true}) {
      const std::vector<Block> silent(channels, Block(1024, 0.0));
      const AllocationPlan plan = allocate_with_scan(views(silent), 50000, stereo_allocation_config(), nullptr, scan);
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
    expect_message<std::runtime_error>([&] { count_allocation_bits(damaged, 2); }, tc.count_message);
    expect_message<std::runtime_error>([&] { perceptual_error(psycho, damaged); }, tc.error_message);
  }
}

TEST(Allocation, HeapAndScanAgreeWithinBudgetAndCodeTruthfully) {
  struct Case {
    std::vector<double> gains;
    std::uint64_t budget;
    std::uint32_t psycho;
  };
  const std::vector<Case> cases = {
      {{1.0}, 2000, 0},       {{1.0}, 6000, 1},            {{1.0, 0.3}, 4000, 0},         {{1.0, 0.3}, 16216, 1},
      {{0.2, 1.0, 0.6}, 12000, 1}, {{1, 1, 1, 1, 1}, 20000, 0}, {{1.0, 0.7}, 40000, 1},  // bands reach ABITS 26
  };
  for (const Case& tc : cases) {
    const std::vector<Block> blocks = noise_frame(tc.gains, static_cast<std::uint32_t>(tc.budget));
    AllocationConfig cfg = stereo_allocation_config();
    cfg.psycho_weighting = tc.psycho;
    const AllocationPlan heap = allocate_with_scan(views(blocks), tc.budget, cfg, nullptr, false);
    const AllocationPlan scan = allocate_with_scan(views(blocks), tc.budget, cfg, nullptr, true);
    EXPECT_LE(heap.total_bits, tc.budget);
    EXPECT_GT(heap.total_bits + 8, tc.budget) << "budget left unspent";
    EXPECT_EQ(heap.total_bits, side_bits(tc.gains.size()) + coded_bits(heap));
    EXPECT_EQ(scan.total_bits, heap.total_bits);
    EXPECT_DOUBLE_EQ(scan.perceptual_error, heap.perceptual_error);
    for (int s = 0; s < 4; ++s)
      for (std::size_t c = 0; c < tc.gains.size(); ++c)
        for (int b = 0; b < 32; ++b) {
          const AllocationBand& band = heap.subframes[s][c][b];
          ASSERT_EQ(scan.subframes[s][c][b].abits, band.abits) << tc.budget << " s" << s << " c" << c << " b" << b;
          double x[8], energy = 0.0, err = 0.0;
          for (int k = 0; k < 8; ++k) x[k] = blocks[c][s * 256 + k * 32 + b], energy += x[k] * x[k] / 8;
          EXPECT_DOUBLE_EQ(band.rms, std::sqrt(energy));
          if (band.abits == 0) {
            EXPECT_DOUBLE_EQ(band.distortion, energy);
            continue;
          }
          // The stored quantizer is the one chosen for this band at its ABITS,
          // and the distortion is that of its reconstruction.
          const QuantizerChoice q = choose_baseline_quantizer(x, 8, band.abits, band.abits);
          EXPECT_EQ(band.quantizer.scale_index, q.scale_index);
          EXPECT_EQ(band.quantizer.abits, band.abits);
          for (double v : x) err += std::pow(v - dequantize(quantize(v, q), q), 2) / 8;
          EXPECT_DOUBLE_EQ(band.distortion, err);
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
  struct Band {
    int s, b;
    double amp;
    int abits;
  };
  const std::vector<Band> bands = {{0, 2, 2.0, 26}, {1, 5, 1.0, 0}, {2, 9, 1.0001, 26}, {3, 4, 0.5, 0}};
  for (const Band& band : bands)
    for (int k = 0; k < 8; ++k) at(blocks[0], band.s, k, band.b) = k % 2 ? band.amp : -band.amp;
  for (bool scan : {false, true}) {
    const AllocationPlan plan = allocate_with_scan(views(blocks), 100000, cfg, nullptr, scan);
    for (const Band& band : bands) EXPECT_EQ(plan.subframes[band.s][0][band.b].abits, band.abits) << band.b;
  }
}

TEST(Allocation, MoreBudgetNeverIncreasesWeightedError) {
  const std::vector<Block> blocks = noise_frame({1.0, 0.4}, 99);
  AllocationConfig cfg = stereo_allocation_config();
  cfg.psycho_weighting = 1;
  double previous = INFINITY;
  for (std::uint64_t budget = 1717; budget <= 30000; budget += 1100) {
    const double error = allocate_with_scan(views(blocks), budget, cfg, nullptr, false).perceptual_error;
    EXPECT_LE(error, previous) << budget;
    previous = error;
  }
}

TEST(Allocation, PsychoOverrideWeightsSteerTheBits) {
  const std::vector<Block> blocks = noise_frame({1.0, 1.0}, 5);
  PsychoAnalysis psycho;
  psycho.subframes.assign(4, std::vector<PsychoBandRecord>(64));
  for (auto& sub : psycho.subframes)
    for (auto& r : sub) r.weight = 1e-9;
  psycho.subframes[2][32 + 6].weight = 1e12;
  AllocationConfig cfg = stereo_allocation_config();
  cfg.psycho_weighting = 1;
  const std::uint64_t budget = 1717 + 46 + 18 * 8;  // room for the favoured band's 19 steps
  const AllocationPlan plan = allocate_with_scan(views(blocks), budget, cfg, &psycho, false);
  EXPECT_EQ(plan.subframes[2][1][6].abits, 26);
  EXPECT_EQ(plan.total_bits, budget);
  double expected = 0.0;
  for (int s = 0; s < 4; ++s)
    for (int c = 0; c < 2; ++c)
      for (int b = 0; b < 32; ++b)
        expected += psycho.subframes[s][c * 32 + b].weight * plan.subframes[s][c][b].distortion;
  EXPECT_DOUBLE_EQ(plan.perceptual_error, expected);

  // Without psycho weighting the high-band ramp decides instead.
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
    if (strength > 0.0) {
      EXPECT_GT(coded_bits(plan, 1), previous) << strength;
    }
    previous = coded_bits(plan, 1);
  }
}

TEST(Allocation, TiesAndTheScanSwitch) {
  struct Pos {
    int s, c, b;
  };
  struct Case {
    Pos first, second;
    double second_gain;  // amplitude factor of the second band
    Pos heap_pick, scan_pick;
  };
  const std::vector<Case> cases = {
      // Exact ties go to the lower subframe, then channel, then band.
      {{0, 1, 9}, {1, 0, 2}, 1.0, {0, 1, 9}, {0, 1, 9}},
      {{2, 0, 15}, {2, 1, 1}, 1.0, {2, 0, 15}, {2, 0, 15}},
      {{3, 1, 4}, {3, 1, 12}, 1.0, {3, 1, 4}, {3, 1, 4}},
      // Far inside the tie tolerance: the heap orders by exact gain, the
      // scan keeps the earlier band.
      {{0, 0, 3}, {0, 0, 4}, 1.0 + 1e-10, {0, 0, 4}, {0, 0, 3}},
  };
  for (const Case& tc : cases) {
    std::vector<Block> blocks(2, Block(1024, 0.0));
    for (int k = 0; k < 8; ++k) {
      at(blocks[tc.first.c], tc.first.s, k, tc.first.b) = k % 3 ? 2.5 : -4.0;
      at(blocks[tc.second.c], tc.second.s, k, tc.second.b) = (k % 3 ? 2.5 : -4.0) * tc.second_gain;
    }
    const std::uint64_t budget = side_bits(2) + 50;  // only one first step fits
    for (bool scan : {false, true}) {
      const AllocationPlan plan = allocate_with_scan(views(blocks), budget, stereo_allocation_config(), nullptr, scan);
      const Pos& p = scan ? tc.scan_pick : tc.heap_pick;
      EXPECT_EQ(plan.subframes[p.s][p.c][p.b].abits, 8) << scan;
      EXPECT_EQ(coded_bits(plan), 46u);
    }
    if (tc.second_gain == 1.0) continue;
    // allocate() takes the switch from the environment: a text beginning with "1".
    for (const char* value : {"1", "1yes", "0", "", " 1"}) {
      ::setenv("TAVRIN_DTS_ALLOCATOR_SCAN", value, 1);
      const Pos& p = value[0] == '1' ? tc.scan_pick : tc.heap_pick;
      const AllocationPlan plan = allocate(views(blocks), budget, stereo_allocation_config(), nullptr);
      EXPECT_EQ(plan.subframes[p.s][p.c][p.b].abits, 8) << value;
    }
    ::unsetenv("TAVRIN_DTS_ALLOCATOR_SCAN");
  }
}

}  // namespace
}  // namespace tavrin
