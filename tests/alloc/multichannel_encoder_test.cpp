#include "alloc/multichannel_encoder.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "support/blocks.h"

namespace tavrin {
namespace {

// The frame comes out at its exact size with the LFE flagged, and the count
// the driver reports is the number of coded (subframe, channel, band)
// entries.
TEST(MultichannelEncoder, FrameSizeLfeAndActiveBands) {
  MultichannelEncoderConfig config;
  config.layout = *parse_layout_name("5.1");
  config.stream = {48000, 768000};
  MultichannelEncoderState state = open_multichannel_encoder(config);

  std::mt19937 gen(9);
  std::normal_distribution<double> noise(0.0, 1.0);
  using Blocks = std::vector<std::vector<double>>;
  Blocks blocks(5, std::vector<double>(1024));
  for (auto& block : blocks)
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = noise(gen) * 3000.0 / (1.0 + i % 32);
  std::vector<double> lfe(1024, 0.25);
  const Blocks silence(5, std::vector<double>(1024, 0.0));
  const std::vector<double> quiet_lfe(1024, 0.0);

  for (const Blocks* frame : std::initializer_list<const Blocks*>{&blocks, &silence}) {
    FrameRecord record{test::views(*frame), frame == &blocks ? lfe.data() : quiet_lfe.data(), 9, 2, 2048};
    const MultichannelFrame made = encode_multichannel_frame(record, config, state);
    ASSERT_EQ(made.frame.bytes.size(), 2048u);
    EXPECT_EQ(made.frame.header.lff, 2);
    EXPECT_EQ(made.frame.payload.lff, 2);
    unsigned coded = 0;
    for (const Subframe& sub : made.frame.payload.subframes)
      for (const auto& bands : sub.abits)
        for (const auto abits : bands) coded += abits != 0;
    EXPECT_EQ(made.active_bands, coded);
    EXPECT_EQ(coded == 0, frame == &silence);
  }
}

}  // namespace
}  // namespace tavrin
