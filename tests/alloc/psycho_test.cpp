#include "alloc/psycho.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "support/blocks.h"

namespace tavrin {
namespace {

using Block = std::vector<double>;
using test::views;

// Alternating samples of amplitude amp[s] in every band of subframe s.
Block frame(const std::vector<double>& amp) {
  Block block(1024);
  for (int i = 0; i < 1024; ++i) block[i] = (i / 32) % 2 ? amp[i / 256] : -amp[i / 256];
  return block;
}

TEST(Psycho, RejectsBadChannelCountsAndConfigurations) {
  const std::string temporal = "invalid Tavrin Psycho v2 temporal/cross-channel controls";
  const std::vector<std::tuple<std::size_t, PsychoConfig, std::string>> cases = {
      {6, {}, "Tavrin Psycho requires 1..5 channels"},
      {2, {.ath_floor = std::nan("")}, "invalid psycho ATH floor"},
      {2, {.masking_strength = -0.1}, "invalid psycho masking strength"},
      {2, {.high_band_floor = 1.0001}, "invalid psycho high-band floor"},
      {2, {.temporal_masking_strength = -1}, temporal}, {2, {.temporal_decay = 1.1}, temporal},
      {2, {.attack_release = 1.5}, temporal},           {2, {.cross_channel_strength = -0.01}, temporal},
      {5, {.masking_strength = 0, .high_band_floor = 1, .temporal_decay = 1, .attack_release = 0,
           .cross_channel_strength = 0}, "accepted"},
  };
  for (const auto& [channels, config, message] : cases) {
    std::string outcome = "accepted";
    try {
      analyse_psycho(views(std::vector<Block>(channels, Block(1024, 0.0))), nullptr, config);
    } catch (const std::invalid_argument& e) {
      outcome = e.what();
    }
    EXPECT_EQ(outcome, message);
  }
}

TEST(Psycho, HighBandFactorReachesTheFloorAtBand31) {
  // No spreading and a vanishing ATH term: only the high-band factor tells the bands apart.
  const PsychoConfig cfg{.ath_floor = 1e-300, .masking_strength = 0, .high_band_floor = 0.4};
  const auto sub = analyse_psycho(views({frame({2, 2, 2, 2})}), nullptr, cfg).subframes[2];
  ASSERT_GT(sub[0].weight, 0.0);
  EXPECT_DOUBLE_EQ(sub[20].weight / sub[0].weight, 1.0);
  EXPECT_DOUBLE_EQ(sub[31].weight / sub[0].weight, 0.4);
}

TEST(Psycho, AttackFollowsEnergyChangesBetweenSubframes) {
  // Amplitude, then expected attack, per subframe.
  const std::vector<std::pair<std::vector<double>, std::vector<double>>> cases = {
      {{0, 0, 1, 1}, {0, 0, 1, 0}},                       // onset after silence, then steady
      {{1, std::sqrt(2.0), 2, 4}, {1, 0.25, 0.25, 0.5}},  // a quarter per octave of energy
      {{1, 5, 0, 1}, {1, 1, 0, 1}},                       // large rises clamp at 1
  };
  for (const auto& [amp, attack] : cases) {
    const PsychoAnalysis a = analyse_psycho(views({frame(amp)}), nullptr, {});
    for (int s = 0; s < 4; ++s) EXPECT_NEAR(a.subframes[s][3].attack, attack[s], 1e-12) << "subframe " << s;
  }
}

TEST(Psycho, TemporalStateAcrossFrames) {
  const PsychoConfig cfg{.temporal_masking_strength = 0.2, .temporal_decay = 0.5};
  const Block block = frame({1, 1, 1, 2});
  PsychoTemporalState state;
  const PsychoAnalysis first = analyse_psycho(views({block}), &state, cfg);
  EXPECT_EQ(first.subframes[0][5].temporal_term, 0.0);
  ASSERT_TRUE(state.valid);
  const double ep = state.energies.at(0).at(5);
  EXPECT_DOUBLE_EQ(ep, first.subframes[3][5].energy);
  // The next frame opens at a quarter of the stored energy: no attack, full post-masking.
  const PsychoAnalysis second = analyse_psycho(views({block}), &state, cfg);
  EXPECT_EQ(second.subframes[0][5].attack, 0.0);
  EXPECT_NEAR(second.subframes[0][5].temporal_term, 0.2 * 0.5 * ep, ep * 1e-12);

  // A state of another channel count is ignored for one frame, then replaced.
  EXPECT_EQ(analyse_psycho(views({block, block}), &state, cfg).subframes[0][5].attack, 1.0);
  EXPECT_EQ(state.energies.size(), 2u);

  // Silence (below the guard, not exactly zero) zeroes every record and the stored energies.
  const Block hush(1024, 1e-17);
  for (const auto& sub : analyse_psycho(views({hush, hush}), &state, cfg).subframes)
    for (const PsychoBandRecord& r : sub) EXPECT_TRUE(r.energy == 0 && r.peak == 0 && r.weight == 0);
  EXPECT_EQ(state.energies, std::vector<std::vector<double>>(2, std::vector<double>(32, 0.0)));
}

TEST(Psycho, CrossChannelTermOnlyWithSeveralChannels) {
  const PsychoConfig cfg{.cross_channel_strength = 0.3};
  const Block a = frame({1, 2, 3, 4});
  const Block anti = frame({-3, -6, -9, -12});  // fully anti-correlated, nine times the energy
  for (const auto& sub : analyse_psycho(views({a}), nullptr, cfg).subframes)
    for (const auto& r : sub) EXPECT_EQ(r.cross_channel_term, 0.0);

  const auto pair = analyse_psycho(views({a, anti}), nullptr, cfg).subframes[1];
  EXPECT_NEAR(pair[4].cross_channel_term, 0.3 * pair[32 + 4].energy, 1e-9 * pair[32 + 4].energy);
  EXPECT_NEAR(pair[32 + 4].cross_channel_term, 0.3 * pair[4].energy, 1e-9 * pair[4].energy);
}

}  // namespace
}  // namespace tavrin
