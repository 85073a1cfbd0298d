#include "alloc/psycho.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>
#include <vector>

#include "bitstream/test_util.h"
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
  const std::vector<std::tuple<std::size_t, PsychoConfig, std::string>> cases = {
      {6, {}, "Tavrin Psycho requires 1..5 channels"},
      {2, {.ath_floor = std::nan("")}, "invalid psycho ATH floor"},
      {2, {.masking_strength = -0.1}, "invalid psycho masking strength"},
      {2, {.high_band_floor = 1.0001}, "invalid psycho high-band floor"},
      {2, {.attack_release = 1.5}, "invalid Tavrin Psycho v2 temporal/cross-channel controls"},
      {5, {.masking_strength = 0, .high_band_floor = 1, .temporal_decay = 1, .attack_release = 0,
           .cross_channel_strength = 0}, "<no exception>"},
  };
  for (const auto& [channels, bound_config, message] : cases) {
    const std::vector<Block> blocks(channels, Block(1024));
    const PsychoConfig& config = bound_config;  // clang 14 cannot capture a structured binding
    EXPECT_EQ(test::message_of([&] { analyse_psycho(views(blocks), nullptr, config); }), message);
  }
}

TEST(Psycho, TonalityHighBandAndCrossChannelTerms) {
  // No spreading and a vanishing ATH term: the bands differ only by these factors.
  PsychoConfig cfg{.ath_floor = 1e-300, .masking_strength = 0, .high_band_floor = 0.4};
  const auto tonal = analyse_psycho(views({frame({2, 2, 2, 2})}), nullptr, cfg).subframes[2];
  EXPECT_DOUBLE_EQ(tonal[20].weight / tonal[0].weight, 1.0);
  EXPECT_DOUBLE_EQ(tonal[31].weight / tonal[0].weight, 0.4);
  cfg.tonality_weight = 0;
  EXPECT_DOUBLE_EQ(tonal[0].weight / analyse_psycho(views({frame({2, 2, 2, 2})}), nullptr, cfg).subframes[2][0].weight,
                   1.65);

  cfg = {.cross_channel_strength = 0.3};
  const Block a = frame({1, 2, 3, 4}), anti = frame({-3, -6, -9, -12});  // anti-correlated, nine times the energy
  EXPECT_EQ(analyse_psycho(views({a}), nullptr, cfg).subframes[1][4].cross_channel_term, 0.0);
  const auto pair = analyse_psycho(views({a, anti}), nullptr, cfg).subframes[1];
  EXPECT_NEAR(pair[4].cross_channel_term, 0.3 * pair[32 + 4].energy, 1e-9 * pair[32 + 4].energy);
  EXPECT_NEAR(pair[32 + 4].cross_channel_term, 0.3 * pair[4].energy, 1e-9 * pair[4].energy);
}

TEST(Psycho, AttackAndTemporalStateAcrossFrames) {
  // Amplitude, then expected attack, per subframe: a quarter per octave of energy, clamped at 1; a band
  // without energy before it is an onset when it rises above the frame's floor.
  const std::vector<std::pair<std::vector<double>, std::vector<double>>> cases = {
      {{1, std::sqrt(2.0), 2, 4}, {1, 0.25, 0.25, 0.5}}, {{0, 1, 5, 0}, {0, 1, 1, 0}}};
  for (const auto& [amp, attack] : cases) {
    const PsychoAnalysis a = analyse_psycho(views({frame(amp)}), nullptr, {});
    for (int s = 0; s < 4; ++s) EXPECT_NEAR(a.subframes[s][3].attack, attack[s], 1e-12) << "subframe " << s;
  }

  const PsychoConfig cfg{.temporal_masking_strength = 0.2, .temporal_decay = 0.5};
  const Block block = frame({1, 1, 1, 2});
  PsychoTemporalState state;
  EXPECT_EQ(analyse_psycho(views({block}), &state, cfg).subframes[0][5].temporal_term, 0.0);
  EXPECT_DOUBLE_EQ(state.energies.at(0).at(5), 4.0);
  // The next frame opens at a quarter of the stored energy: no attack, full post-masking.
  const auto next = analyse_psycho(views({block}), &state, cfg).subframes[0][5];
  EXPECT_EQ(next.attack, 0.0);
  EXPECT_NEAR(next.temporal_term, 0.2 * 0.5 * 4.0, 1e-12);
  // A state of another channel count is ignored for one frame, then replaced.
  EXPECT_EQ(analyse_psycho(views({block, block}), &state, cfg).subframes[0][5].attack, 1.0);
  // Silence (below the guard, not exactly zero) zeroes every record and the stored energies.
  const Block hush(1024, 1e-17);
  for (const auto& sub : analyse_psycho(views({hush, hush}), &state, cfg).subframes)
    for (const PsychoBandRecord& r : sub) EXPECT_TRUE(r.energy == 0 && r.peak == 0 && r.weight == 0);
  EXPECT_EQ(state.energies, std::vector<std::vector<double>>(2, std::vector<double>(32, 0.0)));
}

}  // namespace
}  // namespace tavrin
