#include "alloc/psycho.h"

#include <gtest/gtest.h>

#include <cmath>
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

// Alternating samples of amplitude `amp` in every band of subframe s.
void fill_subframe(Block& block, int s, double amp) {
  for (int k = 0; k < 8; ++k)
    for (int b = 0; b < 32; ++b) at(block, s, k, b) = (k % 2 == 0 ? amp : -amp) * (1.0 + 0.01 * b);
}

// Only the terms a test switches on shape the mask; the ATH term vanishes
// next to the relative epsilon.
PsychoConfig isolated_config() {
  PsychoConfig c = stereo_psycho_config();
  c.ath_floor = 1e-300;
  c.masking_strength = c.temporal_masking_strength = c.cross_channel_strength = 0.0;
  return c;
}

TEST(Psycho, RejectsBadChannelCountsAndConfigurations) {
  struct Case {
    std::size_t channels;
    std::function<void(PsychoConfig&)> change;
    std::string message;
  };
  const std::string channels = "Tavrin Psycho requires 1..5 channels";
  const std::string temporal = "invalid Tavrin Psycho v2 temporal/cross-channel controls";
  const std::vector<Case> cases = {
      {0, [](PsychoConfig&) {}, channels},
      {6, [](PsychoConfig& c) { c.ath_floor = 0; }, channels},
      {2, [](PsychoConfig& c) { c.ath_floor = 0; }, "invalid psycho ATH floor"},
      {2, [](PsychoConfig& c) { c.ath_floor = std::nan(""); }, "invalid psycho ATH floor"},
      {2, [](PsychoConfig& c) { c.masking_strength = -0.1; }, "invalid psycho masking strength"},
      {2, [](PsychoConfig& c) { c.masking_strength = -1, c.high_band_floor = 2; }, "invalid psycho masking strength"},
      {2, [](PsychoConfig& c) { c.high_band_floor = 0; }, "invalid psycho high-band floor"},
      {2, [](PsychoConfig& c) { c.high_band_floor = 1.0001; }, "invalid psycho high-band floor"},
      {2, [](PsychoConfig& c) { c.temporal_masking_strength = -1; }, temporal},
      {2, [](PsychoConfig& c) { c.temporal_decay = 1.1; }, temporal},
      {2, [](PsychoConfig& c) { c.attack_release = 1.5; }, temporal},
      {2, [](PsychoConfig& c) { c.cross_channel_strength = -0.01; }, temporal},
  };
  for (const Case& tc : cases) {
    PsychoConfig cfg = stereo_psycho_config();
    tc.change(cfg);
    const std::vector<Block> blocks(tc.channels, Block(1024, 0.0));
    try {
      analyse_psycho(views(blocks), nullptr, cfg);
      ADD_FAILURE() << "accepted: " << tc.message;
    } catch (const std::invalid_argument& e) {
      EXPECT_EQ(e.what(), tc.message);
    }
  }
  PsychoConfig edge = stereo_psycho_config();  // the limits themselves are valid
  edge.masking_strength = edge.attack_release = edge.cross_channel_strength = 0;
  edge.high_band_floor = edge.temporal_decay = 1;
  EXPECT_NO_THROW(analyse_psycho(views(std::vector<Block>(5, Block(1024, 0.0))), nullptr, edge));
}

TEST(Psycho, SilenceGivesZeroRecordsAndAZeroValidState) {
  const std::vector<Block> blocks(2, Block(1024, 1e-17));  // below the guard, not exactly zero
  PsychoTemporalState state;
  state.energies.assign(3, std::vector<double>(32, 5.0));
  const PsychoAnalysis a = analyse_psycho(views(blocks), &state, stereo_psycho_config());
  ASSERT_EQ(a.subframes.size(), 4u);
  for (const auto& sub : a.subframes) {
    ASSERT_EQ(sub.size(), 64u);
    for (const PsychoBandRecord& r : sub) EXPECT_TRUE(r.energy == 0 && r.peak == 0 && r.weight == 0);
  }
  EXPECT_TRUE(state.valid);
  EXPECT_EQ(state.energies, std::vector<std::vector<double>>(2, std::vector<double>(32, 0.0)));
}

TEST(Psycho, BandStatistics) {
  struct Case {
    std::vector<double> x;
    double energy, peak, tonality, crest;
  };
  const double impulse_crest = (std::sqrt(8.0) - 1.45) / 2.55;
  for (const Case& tc : std::vector<Case>{{{1, -1, 1, -1, 1, -1, 1, -1}, 1, 1, 1, 0},
                                          {{8, 0, 0, 0, 0, 0, 0, 0}, 8, 8, 0, impulse_crest},
                                          {{0, 0, 0, 0, 0, 0, 0, -40}, 200, 40, 0, impulse_crest}}) {
    std::vector<Block> blocks(1, Block(1024, 0.0));
    for (int k = 0; k < 8; ++k) at(blocks[0], 1, k, 7) = tc.x[k];
    const PsychoBandRecord r = analyse_psycho(views(blocks), nullptr, stereo_psycho_config()).subframes[1][7];
    EXPECT_DOUBLE_EQ(r.energy, tc.energy);
    EXPECT_DOUBLE_EQ(r.rms, std::sqrt(tc.energy));
    EXPECT_DOUBLE_EQ(r.peak, tc.peak);
    EXPECT_NEAR(r.tonality, tc.tonality, 1e-12);
    EXPECT_NEAR(r.crest, tc.crest, 1e-12);
  }
}

TEST(Psycho, SpreadingUsesLowerSlopeFromBelowAndUpperFromAbove) {
  PsychoConfig cfg = isolated_config();
  cfg.masking_strength = 0.5;
  cfg.lower_spreading_slope = 6.0;
  cfg.upper_spreading_slope = 13.0;
  std::vector<Block> blocks(1, Block(1024, 0.0));
  at(blocks[0], 0, 0, 10) = 4.0;  // the only masker: energy 2, tonality 0
  const PsychoAnalysis a = analyse_psycho(views(blocks), nullptr, cfg);
  struct Case {
    int band;
    double slope;
    int distance;
  };
  for (const Case& tc : std::vector<Case>{{12, 6.0, 2}, {11, 6.0, 1}, {9, 13.0, 1}, {7, 13.0, 3}}) {
    const double expected = 0.5 * 2.0 * std::pow(10.0, -tc.slope * tc.distance / 10.0);
    EXPECT_NEAR(a.subframes[0][tc.band].mask, expected, expected * 1e-9) << tc.band;
  }
  EXPECT_NEAR(a.subframes[0][10].mask, 0.0, 1e-290);  // a band never masks itself
}

TEST(Psycho, HighBandFactorRampsFromBand21ToTheFloor) {
  PsychoConfig cfg = isolated_config();
  cfg.high_band_floor = 0.4;
  std::vector<Block> blocks(1, Block(1024, 0.0));
  for (int i = 0; i < 1024; ++i) blocks[0][i] = (i / 32) % 2 ? 2.0 : -2.0;  // every band alike
  const PsychoAnalysis analysis = analyse_psycho(views(blocks), nullptr, cfg);
  const auto& sub = analysis.subframes[2];
  ASSERT_GT(sub[0].weight, 0.0);
  EXPECT_DOUBLE_EQ(sub[20].weight / sub[0].weight, 1.0);
  EXPECT_DOUBLE_EQ(sub[26].weight / sub[0].weight, 1.0 + 6.0 / 11.0 * (0.4 - 1.0));
  EXPECT_DOUBLE_EQ(sub[31].weight / sub[0].weight, 0.4);
}

TEST(Psycho, AttackFollowsEnergyChangesBetweenSubframes) {
  struct Case {
    std::vector<double> amp, attack;  // per subframe
  };
  const std::vector<Case> cases = {
      {{0, 0, 1, 1}, {0, 0, 1, 0}},                       // onset after silence, then steady
      {{1, 0.5, 0.25, 0.25}, {1, 0, 0, 0}},               // no history: onset; decay gives 0
      {{1, std::sqrt(2.0), 2, 4}, {1, 0.25, 0.25, 0.5}},  // a quarter per octave of energy
      {{1, 5, 0, 1}, {1, 1, 0, 1}},                       // large rises clamp at 1
  };
  for (const Case& tc : cases) {
    std::vector<Block> blocks(1, Block(1024, 0.0));
    for (int s = 0; s < 4; ++s) fill_subframe(blocks[0], s, tc.amp[s]);
    const PsychoAnalysis a = analyse_psycho(views(blocks), nullptr, stereo_psycho_config());
    for (int s = 0; s < 4; ++s) EXPECT_NEAR(a.subframes[s][3].attack, tc.attack[s], 1e-12) << "subframe " << s;
  }
}

TEST(Psycho, TemporalStateCarriesSubframe3Energies) {
  PsychoConfig cfg = isolated_config();
  cfg.temporal_masking_strength = 0.2;
  cfg.temporal_decay = 0.5;
  std::vector<Block> blocks(1, Block(1024, 0.0));
  for (int s = 0; s < 4; ++s) fill_subframe(blocks[0], s, s == 3 ? 2.0 : 1.0);

  PsychoTemporalState state;
  const PsychoAnalysis first = analyse_psycho(views(blocks), &state, cfg);
  EXPECT_EQ(first.subframes[0][5].attack, 1.0);
  EXPECT_EQ(first.subframes[0][5].temporal_term, 0.0);
  ASSERT_TRUE(state.valid);
  for (int b = 0; b < 32; ++b) EXPECT_DOUBLE_EQ(state.energies.at(0).at(b), first.subframes[3][b].energy);

  // The next frame opens at a quarter of the stored energy: a decay, full post-masking.
  const double ep = state.energies[0][5];
  const PsychoAnalysis second = analyse_psycho(views(blocks), &state, cfg);
  EXPECT_EQ(second.subframes[0][5].attack, 0.0);
  EXPECT_NEAR(second.subframes[0][5].temporal_term, 0.2 * 0.5 * ep, ep * 1e-12);
  const double e2 = second.subframes[2][5].energy;  // subframe 3 rises two octaves: attack 0.5
  EXPECT_NEAR(second.subframes[3][5].temporal_term, 0.2 * 0.5 * (1 - 0.5 * 0.8) * e2, e2 * 1e-12);

  // A state of another channel count is ignored for one frame, then replaced.
  const PsychoAnalysis third = analyse_psycho(views({blocks[0], blocks[0]}), &state, cfg);
  EXPECT_EQ(third.subframes[0][32 + 5].attack, 1.0);
  EXPECT_EQ(state.energies.size(), 2u);
}

TEST(Psycho, CrossChannelTermOnlyWithSeveralChannels) {
  PsychoConfig cfg = isolated_config();
  cfg.cross_channel_strength = 0.3;
  Block a(1024, 0.0), other(1024, 0.0);
  for (int s = 0; s < 4; ++s) fill_subframe(a, s, 1.0 + s);
  Block anti(a);
  for (double& v : anti) v *= -3.0;  // fully anti-correlated, nine times the energy
  for (int i = 0; i < 1024; i += 256)
    for (int b = 0; b < 32; ++b) other[i + b] = 1.0;  // correlation 1/sqrt(8) with `a`

  for (const auto& sub : analyse_psycho(views({a}), nullptr, cfg).subframes)
    for (const auto& r : sub) EXPECT_EQ(r.cross_channel_term, 0.0);

  const PsychoAnalysis pair = analyse_psycho(views({a, anti}), nullptr, cfg);
  const double ea = pair.subframes[1][4].energy, eb = pair.subframes[1][32 + 4].energy;
  EXPECT_NEAR(pair.subframes[1][4].cross_channel_term, 0.3 * eb, 1e-9 * eb);
  EXPECT_NEAR(pair.subframes[1][32 + 4].cross_channel_term, 0.3 * ea, 1e-9 * ea);

  // Three channels: each partner weighted by its correlation, shared by n - 1.
  const PsychoAnalysis three = analyse_psycho(views({a, anti, other}), nullptr, cfg);
  const double eo = three.subframes[1][64 + 4].energy;
  EXPECT_NEAR(three.subframes[1][4].cross_channel_term, 0.3 * (eb + eo / std::sqrt(8.0)) / 2.0, 1e-9 * eb);
}

}  // namespace
}  // namespace tavrin
