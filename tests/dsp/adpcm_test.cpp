#include "dsp/adpcm.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using test::message_of;

// A span that entry `pvq` predicts exactly from its first four samples on.
std::vector<double> span_of_entry(unsigned pvq, std::size_t n) {
  const Predictor c = adpcm_vq_entry(pvq);
  std::vector<double> x = {1000.0, -700.0, 300.0, 50.0};
  for (std::size_t i = 4; i < n; ++i) x.push_back(c[0] * x[i - 1] + c[1] * x[i - 2] + c[2] * x[i - 3] + c[3] * x[i - 4]);
  return x;
}

TEST(Adpcm, TableLookupAndMessages) {
  EXPECT_EQ(adpcm_vq_entry(0), (Predictor{9928 / 8192.0, -2618 / 8192.0, -1093 / 8192.0, -1263 / 8192.0}));
  EXPECT_EQ(message_of<std::out_of_range>([] { adpcm_vq_entry(4096); }), "DTS ADPCM PVQ index out of range");
  const double x[5] = {1, 2, 3, 4, 5};
  const PredictorConfig four{4, 0.0, 0.0};
  const Predictor t{};
  EXPECT_EQ(message_of([&] { design_predictor(nullptr, 5, four); }), "null predictor samples");
  EXPECT_EQ(message_of([&] { design_predictor(x, 5, PredictorConfig{3, 0.0, 0.0}); }), "DTS Core predictor order is 4");
  EXPECT_EQ(message_of([&] { design_predictor(x, 4, four); }), "not enough samples for 4-tap predictor");
  EXPECT_EQ(message_of([&] { select_pvq(x, 4, t, kAdpcmVq.data(), 4096, 4); }),
            "not enough samples for DTS ADPCM PVQ selection");
  EXPECT_EQ(message_of([&] { shortlist_adpcm_entries(t, kAdpcmVq.data(), 4096, 0); }),
            "ADPCM shortlist must be non-zero");
  EXPECT_EQ(message_of([&] { shortlist_adpcm_entries(t, nullptr, 3, 1); }), "null ADPCM VQ table");
}

// The design's rules, one case each: an exactly predictable span, silence
// with and without ridge, a runaway predictor, and a least-squares gain
// below the minimum that stops the table search even where an entry would
// pass.
TEST(Adpcm, DecisionRules) {
  const std::vector<double> exact = span_of_entry(7, 12);
  PredictionDecision d = decide_prediction(exact.data(), exact.size(), {4, 10.0, 0.0}, 16);
  EXPECT_TRUE(d.ls_valid && d.ls_usable && d.chosen);
  for (std::size_t k = 0; k < 4; ++k) EXPECT_NEAR(d.ls_coefficients[k], adpcm_vq_entry(7)[k], 1e-9);
  EXPECT_EQ(d.pvq, 7);
  EXPECT_EQ(d.gain_db, 300.0);
  EXPECT_EQ(d.pmode, 1);

  const std::vector<double> zeros(12, 0.0);
  EXPECT_FALSE(design_predictor(zeros.data(), 12, {4, 0.0, 0.0}).ls_valid);  // singular without ridge
  d = decide_prediction(zeros.data(), 12, {4, 3.0, 0.5}, 16);  // solvable through the ridge
  EXPECT_TRUE(d.ls_valid);
  EXPECT_EQ(d.ls_gain_db, 0.0);  // no power, no gain
  EXPECT_EQ(d.pmode, 0);

  std::vector<double> cubic;  // predicted exactly by (4, -6, 4, -1): magnitude 15
  for (int i = 0; i < 12; ++i) cubic.push_back(static_cast<double>(i * i * i));
  d = decide_prediction(cubic.data(), cubic.size(), {4, 10.0, 0.0}, 16);
  EXPECT_GT(d.ls_gain_db, 100.0);
  EXPECT_FALSE(d.ls_valid);
  EXPECT_EQ(d.pmode, 0);

  // A heavy ridge shrinks the design, whose gain falls below the minimum:
  // no search, although entry 7 predicts the span exactly.
  d = decide_prediction(exact.data(), exact.size(), {4, 10.0, 100.0}, 16);
  EXPECT_LT(d.ls_gain_db, 10.0);
  EXPECT_FALSE(d.chosen);
  EXPECT_EQ(d.pmode, 0);
}

// Equal distances and equal residuals resolve to the smaller index, and a
// list longer than the table holds the whole table.
TEST(Adpcm, ShortlistAndSelectionTies) {
  const std::vector<AdpcmVqEntry> table = {{100, 0, 0, 0}, {8192, 0, 0, 0}, {-100, 0, 0, 0}, {8192, 0, 0, 0}};
  const Predictor target{1.0, 0.0, 0.0, 0.0};
  EXPECT_EQ(shortlist_adpcm_entries(target, table.data(), 4, 2), (std::vector<std::uint16_t>{1, 3}));
  EXPECT_EQ(shortlist_adpcm_entries({0.0, 0.0, 0.0, 0.0}, table.data(), 4, 9),
            (std::vector<std::uint16_t>{0, 2, 1, 3}));
  std::vector<double> x;  // predicted exactly by entries 1 and 3
  for (int i = 0; i < 12; ++i) x.push_back(5.0);
  const PvqChoice choice = select_pvq(x.data(), x.size(), target, table.data(), 4, 4);
  EXPECT_EQ(choice.pvq, 1);
  EXPECT_EQ(choice.gain_db, 300.0);
}

// The decisions kept from block to block are decide_prediction's, whether
// the shortlist was scanned again or kept because it provably still holds;
// only a band predicted last time may keep a list that merely lies near,
// and its choice then stays close to the fresh one.
TEST(Adpcm, CachedDecisionsFollowFreshOnes) {
  std::mt19937 gen(4);
  std::normal_distribution<double> noise(0.0, 1.0);
  AdpcmDecisionCache cache;
  AdpcmShortlistWork work;
  const PredictorConfig config{4, 6.0, 1e-3};
  int kept_lists = 0, approximate = 0;
  for (int block = 0; block < 300; ++block) {
    // Slowly drifting tones with a little noise: the predictor moves a
    // little from block to block, and now and then a lot.
    const double w = 0.4 + 0.0002 * block + (block % 50 == 0 ? 1.0 : 0.0);
    std::vector<double> x(12);
    for (int i = 0; i < 12; ++i) x[i] = 1000.0 * std::sin(w * (8 * block + i)) + 0.01 * noise(gen);
    const PredictionDecision fresh = decide_prediction(x.data(), x.size(), config, 16);
    const Predictor before = cache.target;
    const bool was_predicted = cache.predicted;
    const PredictionDecision kept = decide_prediction_cached(x.data(), x.size(), config, 16, cache, work);
    kept_lists += fresh.ls_usable && cache.target == before;
    ASSERT_EQ(kept.chosen, fresh.chosen) << block;
    if (!fresh.chosen) continue;
    if (kept.pvq != fresh.pvq) {
      ++approximate;
      ASSERT_TRUE(was_predicted) << block;
      ASSERT_GT(kept.gain_db, fresh.gain_db - 1.0) << block;
    } else {
      ASSERT_EQ(kept.gain_db, fresh.gain_db) << block;
      ASSERT_EQ(kept.pmode, fresh.pmode) << block;
    }
  }
  EXPECT_GT(kept_lists, 10);  // the kept list was used, not only fresh scans
  EXPECT_LT(approximate, 30);
}

// What a decoder makes of indexes and predictions: rounded half up in its
// integer domain and clipped to 24 bits.
TEST(Adpcm, DecoderArithmetic) {
  // scale 16 (index 10) times step 84 (ABITS 24) is 1344 / 2^22 a unit:
  // 32768 units are exactly 10.5.
  EXPECT_EQ(decoder_dequantize(32768, 24, 10), 11);
  EXPECT_EQ(decoder_dequantize(-32768, 24, 10), -10);
  EXPECT_EQ(decoder_dequantize(3 * 32768, 24, 10), 32);  // 31.5
  EXPECT_EQ(decoder_dequantize(5, 0, 10), 0);
  EXPECT_EQ(decoder_dequantize(15, 8, 62), kDecoderSampleMax);
  EXPECT_EQ(decoder_dequantize(-16, 8, 62), kDecoderSampleMin);
  const AdpcmVqEntry half{4096, 0, 0, 0};
  EXPECT_EQ(decoder_prediction({3, 0, 0, 0}, half), 2);    // 1.5
  EXPECT_EQ(decoder_prediction({-3, 0, 0, 0}, half), -1);  // -1.5
  EXPECT_EQ(decoder_prediction({kDecoderSampleMax, kDecoderSampleMax, 0, 0}, {16383, 16383, 0, 0}), kDecoderSampleMax);
}

}  // namespace
}  // namespace tavrin
