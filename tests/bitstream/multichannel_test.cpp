#include "bitstream/multichannel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "bitstream/lfe_scale_table.h"
#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using test::message_of;

ChannelLayout layout(const char* name) { return *parse_layout_name(name); }

// The checks fire in their order: each row breaks one rule and every rule
// before it holds.
TEST(MultichannelFrame, ChecksInOrder) {
  ChannelLayout broken = layout("5.1");
  broken.has_lfe = 0;
  ChannelLayout odd_amode = layout("5.0");
  odd_amode.amode = 7;  // passes the layout check, which ignores AMODE 7
  const struct {
    ChannelLayout layout;
    std::size_t blocks;
    bool lfe;
    std::uint32_t rate;
    std::uint32_t bytes;
    std::string message;
  } cases[] = {
      {broken, 5, true, 48000, 2048, "invalid multichannel layout"},
      {layout("2.0"), 2, false, 48000, 2048, "generic multichannel writer excludes stereo"},
      {layout("5.1"), 5, true, 32000, 2048, "multichannel writer supports 44.1/48 kHz"},
      {layout("3.0"), 2, false, 48000, 2048, "primary channel count does not match layout"},
      {layout("5.1"), 5, false, 48000, 2048, "LFE layout requires LFE PCM"},
      {layout("5.0"), 5, true, 48000, 2048, "non-LFE layout must not supply LFE PCM"},
      {odd_amode, 5, false, 48000, 2048, "unsupported public multichannel AMODE"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(message_of([&] { setup_multichannel_frame(c.layout, c.blocks, c.lfe, c.rate, 768000, c.bytes); }),
              c.message);
  }
}

// The frame must hold more than the 104-bit header and, with an LFE, its 160
// bits; what is left goes to the primary channels.
TEST(MultichannelFrame, BudgetAndHeader) {
  EXPECT_EQ(message_of<std::runtime_error>([] { setup_multichannel_frame(layout("5.1"), 5, true, 48000, 768000, 33); }),
            "multichannel target frame too small");
  EXPECT_EQ(setup_multichannel_frame(layout("5.1"), 5, true, 48000, 768000, 34).payload_budget, 8u);
  EXPECT_EQ(message_of<std::runtime_error>([] { setup_multichannel_frame(layout("4.0"), 4, false, 48000, 768000, 13); }),
            "multichannel target frame too small");

  const MultichannelFrameSetup five_one = setup_multichannel_frame(layout("5.1"), 5, true, 44100, 1411200, 4000);
  EXPECT_EQ(five_one.lfe_bits, 160u);
  EXPECT_EQ(five_one.payload_budget, 4000u * 8 - 104 - 160);
  const CoreFrameHeader& h = five_one.header;
  EXPECT_EQ(std::vector<unsigned>({h.amode, h.lff, h.hflag, h.filts, h.vernum, h.nblks, h.frame_bytes, h.pcm_bits}),
            std::vector<unsigned>({9, 2, 0, 1, 7, 31, 4000, 24}));
  const MultichannelFrameSetup quad = setup_multichannel_frame(layout("4.0"), 4, false, 48000, 768000, 2048);
  EXPECT_EQ(std::vector<unsigned>({quad.header.amode, quad.header.lff}), std::vector<unsigned>({8, 0}));
  EXPECT_EQ(quad.payload_budget, 2048u * 8 - 104);
}

// A subframe's four samples share one scale: its peak lands on 127 at most,
// silence on index 0, and the rest round to nearest, ties to even.
TEST(MultichannelFrame, LfeCoding) {
  Subframe sub;
  const double silence[4] = {0, 0, 0, 0};
  code_lfe_subframe(sub, silence);
  EXPECT_EQ(sub.lfe_scale, 0);
  EXPECT_EQ(sub.lfe, (std::vector<std::int8_t>{0, 0, 0, 0}));

  const double full[4] = {1.0, -1.0, 0.5, 0.0};
  code_lfe_subframe(sub, full);
  const std::size_t index = sub.lfe_scale;
  ASSERT_LT(index, kLfeScaleCount);
  EXPECT_GE(kLfeScale[index] / 8388608.0, 1.0 / 4.445);
  EXPECT_LT(kLfeScale[index - 1] / 8388608.0, 1.0 / 4.445);
  EXPECT_GE(sub.lfe[0], 112);  // the next index down would overflow; one up is 12% coarser
  EXPECT_LE(sub.lfe[0], 127);
  EXPECT_EQ(sub.lfe[1], -sub.lfe[0]);
  EXPECT_EQ(sub.lfe[3], 0);

  // A peak of exactly 127 steps of index 11 selects it (10 is smaller); 2.5 steps round to
  // 2 and 3.5 steps to 4.
  const double step = kLfeScale[11] / 8388608.0 * 0.035;
  const double halves[4] = {2.5 * step, 3.5 * step, -2.5 * step, 127.0 * step};
  code_lfe_subframe(sub, halves);
  ASSERT_EQ(sub.lfe_scale, 11);
  EXPECT_EQ(sub.lfe, (std::vector<std::int8_t>{2, 4, -2, 127}));
}

}  // namespace
}  // namespace tavrin
