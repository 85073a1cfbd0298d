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

// Noise falling off with band, in the units of the analysis bank's output
// (full scale about 46000); `gain` sets each channel's level.
std::vector<Block> noise_frame(const std::vector<double>& gain, std::uint32_t seed) {
  std::vector<Block> blocks;
  std::uint32_t state = seed;
  for (double g : gain) {
    Block block(1024);
    for (int s = 0; s < 4; ++s)
      for (int k = 0; k < 8; ++k)
        for (int b = 0; b < 32; ++b) {
          state = state * 1664525u + 1013904223u;
          const double u = static_cast<double>(state >> 8) / 16777216.0 - 0.5;
          at(block, s, k, b) = g * 3000.0 * std::exp(-b / 6.0) * (1.0 + 0.3 * s) * u;
        }
    blocks.push_back(block);
  }
  return blocks;
}

std::uint64_t side_bits(std::size_t channels) { return 91 + 813 * channels; }

std::uint64_t coded_bits(const AllocationPlan& plan) {
  std::uint64_t bits = 0;
  for (const auto& sub : plan.subframes)
    for (const auto& ch : sub)
      for (const auto& band : ch) bits += band.abits == 0 ? 0 : 8 * (band.abits - 3) + 6;
  return bits;
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
  const std::vector<Case> cases = {
      {0, none, -1, 0, "adaptive allocation requires 1..5 channels"},
      {6, none, -1, 0, "adaptive allocation requires 1..5 channels"},
      {2, [](AllocationConfig& c) { c.abits_min = 7; }, -1, 0, "adaptive ABITS range must be 8..26"},
      {2, [](AllocationConfig& c) { c.abits_max = 27; }, -1, 0, "adaptive ABITS range must be 8..26"},
      {2, [](AllocationConfig& c) { c.abits_min = 12, c.abits_max = 11; }, -1, 0, "adaptive ABITS range must be 8..26"},
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
      {1, [](AllocationConfig& c) { c.psycho.high_band_floor = 2; }, -1, 0, "invalid psycho high-band floor"},
  };
  for (const Case& tc : cases) {
    AllocationConfig cfg = stereo_allocation_config();
    tc.change(cfg);
    const std::vector<Block> blocks(tc.channels, Block(1024, 1.0));
    PsychoAnalysis override_analysis;
    if (tc.override_subframes >= 0)
      override_analysis.subframes.assign(tc.override_subframes, std::vector<PsychoBandRecord>(tc.override_channels * 32));
    try {
      allocate_with_scan(views(blocks), 100000, cfg, tc.override_subframes >= 0 ? &override_analysis : nullptr, false);
      ADD_FAILURE() << "accepted: " << tc.message;
    } catch (const std::invalid_argument& e) {
      EXPECT_EQ(e.what(), tc.message);
    }
  }
}

TEST(Allocation, BudgetMustCoverSideInformation) {
  for (std::size_t channels : {1u, 2u, 5u}) {
    const std::vector<Block> blocks = noise_frame(std::vector<double>(channels, 1.0), 7);
    const std::uint64_t side = side_bits(channels);
    try {
      allocate_with_scan(views(blocks), side - 1, stereo_allocation_config(), nullptr, false);
      ADD_FAILURE() << channels;
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "target payload budget is smaller than DTS side information");
    }
    // Exactly the side information: nothing can be coded, but it is valid.
    const AllocationPlan plan = allocate_with_scan(views(blocks), side, stereo_allocation_config(), nullptr, false);
    EXPECT_EQ(plan.total_bits, side);
    EXPECT_EQ(coded_bits(plan), 0u);
  }
}

TEST(Allocation, CountsAndShapeChecks) {
  AllocationPlan plan;
  plan.subframes.assign(4, std::vector<std::vector<AllocationBand>>(2, std::vector<AllocationBand>(32)));
  EXPECT_EQ(count_allocation_bits(plan, 2), 1717u);
  plan.subframes[1][0][3].abits = 8;   // 46 bits
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
  PsychoAnalysis analysis;
  analysis.subframes.assign(4, std::vector<PsychoBandRecord>(64));
  for (const Case& tc : cases) {
    AllocationPlan damaged = plan;
    tc.damage(damaged);
    try {
      count_allocation_bits(damaged, 2);
      ADD_FAILURE() << tc.count_message;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(), tc.count_message);
    }
    try {
      perceptual_error(analysis, damaged);
      ADD_FAILURE() << tc.error_message;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(), tc.error_message);
    }
  }
  PsychoAnalysis ragged = analysis;
  ragged.subframes[0].resize(63);
  EXPECT_THROW(perceptual_error(ragged, plan), std::runtime_error);
}

TEST(Allocation, SilentFrameSpendsOnlySideInformation) {
  for (bool scan : {false, true}) {
    const std::vector<Block> blocks(2, Block(1024, 0.0));
    const AllocationPlan plan = allocate_with_scan(views(blocks), 16000, stereo_allocation_config(), nullptr, scan);
    EXPECT_EQ(plan.total_bits, 1717u);
    EXPECT_EQ(coded_bits(plan), 0u);
    EXPECT_EQ(plan.perceptual_error, 0.0);
  }
}

TEST(Allocation, CodedBandsCarryTheirQuantizerAndTrueDistortion) {
  const std::vector<Block> blocks = noise_frame({1.0, 0.5}, 11);
  const AllocationPlan plan = allocate_with_scan(views(blocks), 9000, stereo_allocation_config(), nullptr, false);
  int coded = 0;
  for (int s = 0; s < 4; ++s)
    for (int c = 0; c < 2; ++c)
      for (int b = 0; b < 32; ++b) {
        const AllocationBand& band = plan.subframes[s][c][b];
        double sum = 0.0, peak = 0.0, err = 0.0;
        for (int k = 0; k < 8; ++k) {
          const double x = blocks[c][s * 256 + k * 32 + b];
          sum += x * x;
          peak = std::max(peak, std::abs(x));
          if (band.abits != 0) {
            const double y = dequantize(quantize(x, band.quantizer), band.quantizer);
            err += (x - y) * (x - y);
          }
        }
        EXPECT_DOUBLE_EQ(band.rms, std::sqrt(sum / 8));
        EXPECT_DOUBLE_EQ(band.peak, peak);
        EXPECT_EQ(band.quantizer.abits, band.abits);
        if (band.abits == 0) {
          EXPECT_DOUBLE_EQ(band.distortion, sum / 8);
        } else {
          ++coded;
          EXPECT_GE(band.abits, 8);
          EXPECT_DOUBLE_EQ(band.distortion, err / 8);
          // The quantizer was chosen for this band's own samples at its ABITS.
          double x[8];
          for (int k = 0; k < 8; ++k) x[k] = blocks[c][s * 256 + k * 32 + b];
          const QuantizerChoice fresh = choose_baseline_quantizer(x, 8, band.abits, band.abits);
          EXPECT_EQ(band.quantizer.scale_index, fresh.scale_index);
          EXPECT_EQ(band.quantizer.quantum, fresh.quantum);
        }
        const double t = b <= 20 ? 0.0 : (b - 20) / 11.0;
        EXPECT_NEAR(band.weight, 1.0 - t + t * 0.65, 1e-12);
      }
  EXPECT_GT(coded, 20);
}

TEST(Allocation, SingleStepWhenAbitsRangeIsOneValue) {
  AllocationConfig cfg = stereo_allocation_config();
  cfg.abits_min = cfg.abits_max = 12;
  const std::vector<Block> blocks = noise_frame({1.0}, 3);
  const AllocationPlan plan = allocate_with_scan(views(blocks), 1000000, cfg, nullptr, false);
  std::uint64_t coded = 0;
  for (const auto& sub : plan.subframes)
    for (const auto& band : sub[0]) {
      EXPECT_TRUE(band.abits == 0 || band.abits == 12);
      coded += band.abits != 0;
    }
  EXPECT_EQ(coded, 128u);  // ample budget: every band takes its one step
  EXPECT_EQ(plan.total_bits, side_bits(1) + coded * (8 * 9 + 6));
}

TEST(Allocation, BandAtTheSilenceThresholdGetsNoBits) {
  AllocationConfig cfg = stereo_allocation_config();
  cfg.relative_silence_floor = 0.5;
  std::vector<Block> blocks(1, Block(1024, 0.0));
  for (int k = 0; k < 8; ++k) {
    at(blocks[0], 0, k, 2) = k % 2 ? 2.0 : -2.0;          // rms 2: the frame's largest
    at(blocks[0], 1, k, 5) = k % 2 ? 1.0 : -1.0;          // rms exactly 2 * 0.5
    at(blocks[0], 2, k, 9) = k % 2 ? 1.0001 : -1.0001;    // just above
    at(blocks[0], 3, k, 4) = k % 2 ? 0.5 : -0.5;          // well below
  }
  for (bool scan : {false, true}) {
    const AllocationPlan plan = allocate_with_scan(views(blocks), 100000, cfg, nullptr, scan);
    EXPECT_EQ(plan.subframes[0][0][2].abits, 26);
    EXPECT_EQ(plan.subframes[1][0][5].abits, 0);
    EXPECT_EQ(plan.subframes[2][0][9].abits, 26);
    EXPECT_EQ(plan.subframes[3][0][4].abits, 0);
  }
}

TEST(Allocation, HeapAndScanAgreeAndStayWithinBudget) {
  struct Case {
    std::vector<double> gains;
    std::uint64_t budget;
    std::uint32_t psycho;
  };
  const std::vector<Case> cases = {
      {{1.0}, 2000, 0},        {{1.0}, 6000, 1},          {{1.0, 0.3}, 4000, 0},
      {{1.0, 0.3}, 16216, 1},  {{0.2, 1.0, 0.6}, 12000, 1}, {{1, 1, 1, 1, 1}, 20000, 0},
      {{1.0, 0.7}, 40000, 1},  // enough for nearly everything: bands reach ABITS 26
  };
  for (const Case& tc : cases) {
    const std::vector<Block> blocks = noise_frame(tc.gains, static_cast<std::uint32_t>(tc.budget));
    AllocationConfig cfg = stereo_allocation_config();
    cfg.psycho_weighting = tc.psycho;
    const AllocationPlan heap = allocate_with_scan(views(blocks), tc.budget, cfg, nullptr, false);
    const AllocationPlan scan = allocate_with_scan(views(blocks), tc.budget, cfg, nullptr, true);
    EXPECT_LE(heap.total_bits, tc.budget);
    EXPECT_GT(heap.total_bits + 8, tc.budget) << "budget left unspent";
    EXPECT_EQ(heap.total_bits, count_allocation_bits(heap, tc.gains.size()));
    EXPECT_EQ(heap.psycho_weighting, tc.psycho);
    EXPECT_EQ(scan.total_bits, heap.total_bits);
    EXPECT_DOUBLE_EQ(scan.perceptual_error, heap.perceptual_error);
    for (int s = 0; s < 4; ++s)
      for (std::size_t c = 0; c < tc.gains.size(); ++c)
        for (int b = 0; b < 32; ++b)
          ASSERT_EQ(scan.subframes[s][c][b].abits, heap.subframes[s][c][b].abits)
              << "budget " << tc.budget << " s" << s << " c" << c << " b" << b;
  }
}

TEST(Allocation, MoreBudgetNeverIncreasesWeightedError) {
  const std::vector<Block> blocks = noise_frame({1.0, 0.4}, 99);
  AllocationConfig cfg = stereo_allocation_config();
  cfg.psycho_weighting = 1;
  double previous = 0.0;
  for (std::uint64_t budget = 1717; budget <= 30000; budget += 1100) {
    const AllocationPlan plan = allocate_with_scan(views(blocks), budget, cfg, nullptr, false);
    if (budget > 1717) {
      EXPECT_LE(plan.perceptual_error, previous) << budget;
    }
    previous = plan.perceptual_error;
  }
}

TEST(Allocation, PsychoOverrideWeightsSteerTheBits) {
  const std::vector<Block> blocks = noise_frame({1.0, 1.0}, 5);
  PsychoAnalysis override_analysis;
  override_analysis.subframes.assign(4, std::vector<PsychoBandRecord>(64));
  for (auto& sub : override_analysis.subframes)
    for (auto& r : sub) r.weight = 1e-9;
  override_analysis.subframes[2][32 + 6].weight = 1e12;
  AllocationConfig cfg = stereo_allocation_config();
  cfg.psycho_weighting = 1;
  // Room for the favoured band's 19 steps only.
  const std::uint64_t budget = 1717 + 46 + 18 * 8;
  const AllocationPlan plan = allocate_with_scan(views(blocks), budget, cfg, &override_analysis, false);
  EXPECT_EQ(plan.subframes[2][1][6].abits, 26);
  EXPECT_EQ(plan.subframes[2][1][6].weight, 1e12);
  EXPECT_EQ(plan.total_bits, budget);
  double expected = 0.0;
  for (int s = 0; s < 4; ++s)
    for (int c = 0; c < 2; ++c)
      for (int b = 0; b < 32; ++b)
        expected += override_analysis.subframes[s][c * 32 + b].weight * plan.subframes[s][c][b].distortion;
  EXPECT_DOUBLE_EQ(plan.perceptual_error, expected);

  // Without psycho weighting the ramp applies, but the error still uses the analysis.
  cfg.psycho_weighting = 0;
  const AllocationPlan ramp = allocate_with_scan(views(blocks), budget, cfg, &override_analysis, false);
  EXPECT_LT(ramp.subframes[2][1][6].abits, 26);
  EXPECT_EQ(ramp.subframes[2][1][31].weight, 0.65);
}

TEST(Allocation, FairnessFavoursTheLaggingChannel) {
  // A loud and a quiet channel share a tight budget: without fairness the
  // loud one takes nearly everything.
  const std::vector<Block> blocks = noise_frame({1.0, 0.05}, 21);
  const auto quiet_bits = [](const AllocationPlan& p) {
    std::uint64_t bits = 0;
    for (const auto& sub : p.subframes)
      for (const auto& band : sub[1]) bits += band.abits == 0 ? 0 : 8 * (band.abits - 3) + 6;
    return bits;
  };
  AllocationConfig cfg = stereo_allocation_config();
  std::uint64_t previous = 0;
  for (double strength : {0.0, 1.0, 2.0}) {
    cfg.channel_fairness = strength;
    const AllocationPlan plan = allocate_with_scan(views(blocks), 6000, cfg, nullptr, false);
    EXPECT_LE(plan.total_bits, 6000u);
    EXPECT_EQ(plan.total_bits, count_allocation_bits(plan, 2));
    if (strength > 0.0) {
      EXPECT_GT(quiet_bits(plan), previous) << strength;
    }
    previous = quiet_bits(plan);
  }
}

TEST(Allocation, ExactTiesGoToTheLowerSubframeChannelBand) {
  struct Pos {
    int s, c, b;
  };
  struct Case {
    Pos first, second;  // first is the one that must win
  };
  const std::vector<Case> cases = {
      {{0, 1, 9}, {1, 0, 2}},  // subframe decides before channel and band
      {{2, 0, 15}, {2, 1, 1}},  // then channel
      {{3, 1, 4}, {3, 1, 12}},  // then band
  };
  for (const Case& tc : cases) {
    std::vector<Block> blocks(2, Block(1024, 0.0));
    for (int k = 0; k < 8; ++k)
      for (const Pos& p : {tc.first, tc.second}) at(blocks[p.c], p.s, k, p.b) = k % 3 ? 2.5 : -4.0;
    for (bool scan : {false, true}) {
      const AllocationPlan plan =
          allocate_with_scan(views(blocks), side_bits(2) + 46, stereo_allocation_config(), nullptr, scan);
      EXPECT_EQ(plan.subframes[tc.first.s][tc.first.c][tc.first.b].abits, 8) << scan;
      EXPECT_EQ(plan.subframes[tc.second.s][tc.second.c][tc.second.b].abits, 0) << scan;
    }
  }
}

TEST(Allocation, NearTiesSeparateHeapFromScan) {
  // Two bands whose first steps differ in gain by far less than the tie
  // tolerance; only one first step fits. The heap orders by exact gain, the
  // scan keeps the earlier band unless a later one is clearly better.
  std::vector<Block> blocks(1, Block(1024, 0.0));
  for (int k = 0; k < 8; ++k) {
    at(blocks[0], 0, k, 3) = k % 2 ? 1.0 : -1.0;
    at(blocks[0], 0, k, 4) = k % 2 ? 1.0 + 1e-10 : -1.0 - 1e-10;
  }
  const AllocationConfig cfg = stereo_allocation_config();
  const std::uint64_t budget = side_bits(1) + 46 + 7;
  const AllocationPlan heap = allocate_with_scan(views(blocks), budget, cfg, nullptr, false);
  const AllocationPlan scan = allocate_with_scan(views(blocks), budget, cfg, nullptr, true);
  EXPECT_EQ(heap.subframes[0][0][4].abits, 8);
  EXPECT_EQ(heap.subframes[0][0][3].abits, 0);
  EXPECT_EQ(scan.subframes[0][0][3].abits, 8);
  EXPECT_EQ(scan.subframes[0][0][4].abits, 0);

  // allocate() reads the switch from the environment: a text beginning with "1".
  struct Case {
    const char* value;
    int band;
  };
  for (const Case& tc : std::vector<Case>{{"1", 3}, {"1yes", 3}, {"0", 4}, {"", 4}, {" 1", 4}, {nullptr, 4}}) {
    if (tc.value != nullptr)
      ::setenv("TAVRIN_DTS_ALLOCATOR_SCAN", tc.value, 1);
    else
      ::unsetenv("TAVRIN_DTS_ALLOCATOR_SCAN");
    const AllocationPlan plan = allocate(views(blocks), budget, cfg, nullptr);
    EXPECT_EQ(plan.subframes[0][0][tc.band].abits, 8) << (tc.value ? tc.value : "unset");
  }
  ::unsetenv("TAVRIN_DTS_ALLOCATOR_SCAN");
}

}  // namespace
}  // namespace tavrin
