#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "alloc/span24_encoder.h"
#include "alloc/span24_mask.h"
#include "bitstream/test_util.h"
#include "support/blocks.h"

namespace tavrin {
namespace {

std::vector<std::vector<double>> loud_frame(std::size_t channels, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> n(0.0, 1.0);
  std::vector<std::vector<double>> blocks(channels, std::vector<double>(1024));
  for (auto& block : blocks)
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = n(rng) * 2e6 / (1.0 + static_cast<double>(i % 32));
  return blocks;
}

// Frames come out at exactly their size, with every bit the allocation
// counted written (the encoder checks that itself and would throw), and
// silence codes no band at all.
TEST(Span24Encoder, FillsEveryFrameExactly) {
  Span24Config config;
  Span24State state;
  const auto two = loud_frame(2, 3);
  for (const std::uint32_t size : {2048u, 2229u, 2730u, 3763u, 4096u}) {
    const Span24Frame f = encode_span24_frame(test::views(two), 2, {48000, 768000}, size, config, state);
    EXPECT_EQ(f.frame.bytes.size(), size);
    EXPECT_LE(f.frame.payload_bits + config.reserved_bits, size * 8);
    EXPECT_GT(f.frame.payload_bits + config.reserved_bits + 40, size * 8) << "bits left unspent at " << size;
  }
  const std::vector<std::vector<double>> silence(2, std::vector<double>(1024, 0.0));
  const Span24Frame quiet = encode_span24_frame(test::views(silence), 2, {48000, 768000}, 2048, config, state);
  for (const Subframe& s : quiet.frame.payload.subframes)
    for (const auto& channel : s.abits)
      for (unsigned a : channel) EXPECT_EQ(a, 0u);
  EXPECT_EQ(test::message_of([&] { encode_span24_frame(test::views(loud_frame(3, 1)), 2, {48000, 768000}, 2048, config, state); }),
            "AMODE primary-channel count mismatch");
  EXPECT_EQ(test::message_of([&] { encode_span24_frame(test::views(two), 2, {48000, 768000}, 100, config, state); }),
            "frame too small for span24 DTS Core frame");
}

// A steady frame keeps the 24 + 8 layout; a click over silence is coded in
// subframes of 8, so the silent ones cost nothing and the click's gets the
// bits.
TEST(Span24Encoder, AttackOverSilenceTakesSubframesOfEight) {
  Span24Config config;
  Span24State state;
  const auto layout = [](const Span24Frame& f) {
    std::vector<unsigned> ssc;
    for (const Subframe& s : f.frame.payload.subframes) ssc.push_back(s.ssc);
    return ssc;
  };
  const auto steady = loud_frame(2, 5);
  EXPECT_EQ(layout(encode_span24_frame(test::views(steady), 2, {48000, 768000}, 2048, config, state)),
            (std::vector<unsigned>{3, 1}));
  std::vector<std::vector<double>> click(2, std::vector<double>(1024, 0.0));
  const auto noise = loud_frame(2, 6);
  for (std::size_t c = 0; c < 2; ++c)
    for (std::size_t i = 2 * 256; i < 3 * 256; ++i) click[c][i] = noise[c][i];
  const Span24Frame f = encode_span24_frame(test::views(click), 2, {48000, 768000}, 2048, config, state);
  EXPECT_EQ(layout(f), (std::vector<unsigned>{1, 1, 1, 1}));
  for (const unsigned quiet : {0u, 1u, 3u})
    for (const auto& channel : f.frame.payload.subframes[quiet].abits)
      for (const unsigned a : channel) EXPECT_EQ(a, 0u) << "subframe " << quiet;
}

// The threshold in quiet: lowest around 3-4 kHz, far above it in the top
// band, and a full-scale sine's power sits 96 dB above its floor.
TEST(Span24Mask, QuietThresholdFollowsHearing) {
  const double most_sensitive = span24_quiet_threshold(4, 48000);  // 3-3.75 kHz
  EXPECT_NEAR(10.0 * std::log10(kSubbandFullScalePower / most_sensitive), 96.0 + 5.0, 2.0);
  EXPECT_GT(span24_quiet_threshold(31, 48000), most_sensitive * 1e6);
  EXPECT_GT(span24_quiet_threshold(0, 48000), most_sensitive);
}

// Masking spreads over critical bands, not subbands: a low subband spans
// several of them, so its masker barely reaches its neighbours, while high
// subbands lie within one critical band of each other; it reaches further
// upward than downward.
TEST(Span24Mask, SpreadsOverCriticalBands) {
  const Span24MaskTables tables = span24_mask_tables(48000);
  const auto masks_of = [&](std::size_t band) {
    PsychoAnalysis a;
    a.subframes.assign(4, std::vector<PsychoBandRecord>(2 * kMaskBands));
    for (auto& s : a.subframes) s[band].energy = 1e12;
    return span24_masks(a, 2, tables).mask[0];
  };
  const auto low = masks_of(1);
  EXPECT_NEAR(low[1], 1e12 * std::pow(10.0, -0.55), 1e9);  // a noise-like masker, 5.5 dB above its mask
  EXPECT_LT(low[0], low[1] * 1e-2);
  EXPECT_LT(low[2], low[1] * 1e-2);
  const auto high = masks_of(20);
  EXPECT_GT(high[21], high[20] * 0.1);
  const auto mid = masks_of(10);
  EXPECT_GT(mid[11], mid[9]);
}

}  // namespace
}  // namespace tavrin
