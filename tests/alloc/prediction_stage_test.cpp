#include "alloc/prediction_stage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "alloc/adpcm_rate.h"
#include "alloc/plan_payload.h"
#include "support/blocks.h"

namespace tavrin {
namespace {

using Blocks = std::vector<std::vector<double>>;

// Two channels of subband samples: steady tones in the low bands (which
// prediction serves), noise in a few others, frame after frame.
Blocks subband_frame(unsigned frame, std::mt19937& gen) {
  std::normal_distribution<double> noise(0.0, 1.0);
  Blocks blocks(2, std::vector<double>(1024, 0.0));
  for (std::size_t c = 0; c < 2; ++c)
    for (std::size_t slot = 0; slot < 32; ++slot)
      for (std::size_t b = 0; b < 32; ++b) {
        const double n = 32.0 * frame + static_cast<double>(slot);
        double v = 0.0;
        if (b < 12) v = 20000.0 / (1.0 + b) * std::sin((0.3 + 0.17 * b + 0.05 * c) * n + b);
        if (b >= 12 && b < 16) v = 300.0 * noise(gen);
        blocks[c][slot * 32 + b] = v;
      }
  return blocks;
}

double weighted_error(const FramePayload& payload, const AllocationPlan& plan, const Blocks& blocks,
                      std::vector<AdpcmHistory>& history) {
  double sum = 0.0;
  for (std::size_t s = 0; s < 4; ++s)
    for (std::size_t c = 0; c < 2; ++c)
      for (std::size_t b = 0; b < 32; ++b) {
        const Subframe& sub = payload.subframes[s];
        AdpcmHistory& h = history[c * 32 + b];
        for (std::size_t k = 0; k < 8; ++k) {
          // The decoder's reconstruction, written out independently.
          std::int64_t y = decoder_dequantize(sub.audio[c][b * 8 + k], sub.abits[c][b], sub.scale[c][b]);
          if (sub.pmode[c][b] != 0) y = clip_decoder_sample(y + decoder_prediction(h, kAdpcmVq[sub.pvq[c][b]]));
          push_history(h, static_cast<std::int32_t>(y));
          const double e = blocks[c][s * 256 + k * 32 + b] - static_cast<double>(y);
          sum += plan.subframes[s][c][b].weight * e * e;
        }
      }
  return sum;
}

// Frame after frame: the stage stays within the spare bits and accounts
// for them exactly, its history is what a decoder holds, it predicts the
// tones from the second frame on (never without history), and it never
// leaves the weighted error above that of the direct coding it started from.
TEST(PredictionStage, ClosedLoopAccountingAndGain) {
  std::mt19937 gen(8);
  const AllocationConfig config = stereo_allocation_config();
  PredictionConfig prediction;
  PredictionHistory history;
  std::vector<AdpcmHistory> decoder(64);
  const std::uint64_t budget = 12000;
  for (unsigned frame = 0; frame < 6; ++frame) {
    SCOPED_TRACE(frame);
    const Blocks blocks = subband_frame(frame, gen);
    const auto channels = test::views(blocks);
    AllocationPlan plan = allocate(channels, budget, config, nullptr);
    refine_allocation(channels, plan, budget, config);
    FramePayload payload = payload_from_plan(channels, plan);
    const FramePayload direct = payload;
    const std::uint64_t before = payload_bit_count(payload);
    const bool use_history = frame > 0;
    if (!use_history) decoder.assign(64, AdpcmHistory{});
    const PredictionResult r =
        run_prediction_stage(channels, plan, payload, budget - plan.total_bits, use_history, prediction, history);
    const std::uint64_t after = payload_bit_count(payload);
    EXPECT_EQ(static_cast<std::int64_t>(after - before), r.bit_change);
    EXPECT_LE(after, before + (budget - plan.total_bits));

    std::vector<AdpcmHistory> direct_history = decoder;
    const double predicted_error = weighted_error(payload, plan, blocks, decoder);
    const double direct_error = weighted_error(direct, plan, blocks, direct_history);
    EXPECT_LE(predicted_error, direct_error * (1.0 + 1e-12));
    EXPECT_EQ(history.bands, decoder);
    if (use_history) {
      EXPECT_GT(r.predicted, 20u);
      EXPECT_LT(predicted_error, direct_error * 0.8);
    } else {
      EXPECT_EQ(r.predicted, 0u);
    }
  }
}

}  // namespace
}  // namespace tavrin
