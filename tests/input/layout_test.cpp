#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "input/layout.h"

namespace tavrin {
namespace {

using S = SpeakerId;
using Order = std::vector<SpeakerId>;

// The centre is coded first and the LFE last; a WAVE frame's order is the raw default.
TEST(Layout, NamedLayoutsAndWaveMasks) {
  const std::tuple<const char*, std::uint32_t, std::uint32_t, unsigned> cases[] = {
      {"2.0", 0x3, 0x3, 2}, {"3.0", 0x7, 0x7, 5}, {"4.0", 0x603, 0x33, 8}, {"5.0", 0x607, 0x37, 9},
      {"5.1", 0x60F, 0x3F, 9}};
  for (const auto& [name, side_mask, back_mask, amode] : cases) {
    SCOPED_TRACE(name);
    const ChannelLayout layout = parse_layout_name(name).value();
    EXPECT_EQ(layout.amode, amode);
    EXPECT_TRUE(validate_layout(layout));
    Order order = default_source_order(name);
    EXPECT_EQ(order, source_order_from_mask(side_mask));
    std::ranges::stable_sort(order, {}, [](S s) { return s == S::C ? -1 : static_cast<int>(s); });
    EXPECT_EQ(Order(layout.speakers.begin(), layout.speakers.begin() + layout.channel_count), order);
    for (std::uint32_t mask : {side_mask, back_mask}) EXPECT_EQ(layout_from_wave_mask(order.size(), mask)->name, name);
  }
  EXPECT_EQ(parse_layout_name("stereo")->name, "2.0");
  EXPECT_FALSE(layout_from_wave_mask(6, 0x63F));  // both surround pairs at once
  EXPECT_FALSE(layout_from_wave_mask(3, 0x3));    // a mask of another width
}

TEST(SampleFormat, ParsingAndConversions) {
  // Two stereo frames each.
  const std::tuple<const char*, std::vector<std::uint8_t>, std::vector<double>, std::vector<double>> cases[] = {
      {"s16le", {0xFF, 0x7F, 0x00, 0x80, 0x01, 0x00, 0xFF, 0xFF}, {32767.0 / 32768, 1.0 / 32768}, {-1.0, -1.0 / 32768}},
      {"s24le", {0x00, 0x00, 0x80, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x40}, {-1.0, -1.0 / 8388608},
       {8388607.0 / 8388608, 0.5}},
      {"s32le", {0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0xC0, 0x01, 0, 0, 0}, {-1.0, -0.5},
       {2147483647.0 / 2147483648.0, 1.0 / 2147483648.0}},
      // 1.5, -2.0, NaN, 0.25: out of range and NaN clamp.
      {"f32le", {0, 0, 0xC0, 0x3F, 0, 0, 0, 0xC0, 0, 0, 0xC0, 0x7F, 0, 0, 0x80, 0x3E}, {1.0, 1.0}, {-1.0, 0.25}},
  };
  for (const auto& [name, bytes, left, right] : cases) {
    const SampleFormat format = parse_sample_format(name).value();
    EXPECT_EQ(sample_format_name(format), name);
    const auto out = deinterleave_to_layout(bytes.data(), 2, format, stereo_layout(), {S::L, S::R});
    EXPECT_EQ(out, (std::vector<std::vector<double>>{left, right})) << name;
  }
}

TEST(Deinterleave, SourceOrderToCodingOrder) {
  std::vector<std::uint8_t> bytes;  // two 5.1 frames in WAVE order L R C LFE SL SR, samples 1 to 12
  for (std::uint8_t v = 1; v <= 12; ++v) bytes.insert(bytes.end(), {v, 0});
  auto out = deinterleave_to_layout(bytes.data(), 2, SampleFormat::s16le, *parse_layout_name("5.1"),
                                    default_source_order("5.1"));
  for (auto& channel : out) std::ranges::for_each(channel, [](double& x) { x *= 32768; });
  EXPECT_EQ(out, (std::vector<std::vector<double>>{{3, 9}, {1, 7}, {2, 8}, {5, 11}, {6, 12}, {4, 10}}));
}

}  // namespace
}  // namespace tavrin
