#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <tuple>

#include "input/layout.h"
#include "input/sample_format.h"

namespace tavrin {
namespace {

using S = SpeakerId;
using Order = std::vector<SpeakerId>;

// The name gives the full-band and LFE counts; the centre is coded first and
// the LFE last; a WAVE file's channel order is the default raw order.
TEST(Layout, NamedLayoutsAndWaveMasks) {
  const std::tuple<const char*, std::uint32_t, std::uint32_t, unsigned> cases[] = {
      {"2.0", 0x3, 0x3, 2}, {"3.0", 0x7, 0x7, 5}, {"4.0", 0x603, 0x33, 8}, {"5.0", 0x607, 0x37, 9},
      {"5.1", 0x60F, 0x3F, 9}};
  const auto rank = [](S s) { return s == S::C ? -1 : static_cast<int>(s); };
  for (const auto& [name, side_mask, back_mask, amode] : cases) {
    SCOPED_TRACE(name);
    const auto layout = parse_layout_name(name);
    ASSERT_TRUE(layout);
    EXPECT_EQ(layout->amode, amode);
    EXPECT_TRUE(validate_layout(*layout));
    EXPECT_EQ(full_band_count(*layout), unsigned(name[0] - '0'));
    EXPECT_EQ(layout->has_lfe, name[2] - '0');
    Order source = default_source_order(name);
    EXPECT_EQ(source, source_order_from_mask(side_mask));
    std::stable_sort(source.begin(), source.end(), [&](S a, S b) { return rank(a) < rank(b); });
    EXPECT_EQ(Order(layout->speakers.begin(), layout->speakers.begin() + layout->channel_count), source);
    for (std::uint32_t mask : {side_mask, back_mask}) {
      const auto from_mask = layout_from_wave_mask(layout->channel_count, mask);
      EXPECT_EQ(from_mask ? from_mask->name : "none", name) << std::hex << mask;
    }
  }
  EXPECT_EQ(parse_layout_name("stereo")->name, "2.0");
  EXPECT_EQ(stereo_layout().name, "2.0");
  for (const char* bad : {"5.1 ", "Stereo"}) EXPECT_TRUE(!parse_layout_name(bad) && default_source_order(bad).empty());
  // Both surround pairs; a mask for another width or layout; no second form for stereo.
  for (const auto& [channels, mask] : {std::pair{6u, 0x63Fu}, {3u, 0x3u}, {4u, 0x607u}, {2u, 0x0u}}) {
    EXPECT_FALSE(layout_from_wave_mask(channels, mask)) << channels << std::hex << " " << mask;
  }
  // Ascending bits, both surround pairs named SL/SR, other speakers ignored.
  EXPECT_EQ(source_order_from_mask(0x7FF), (Order{S::L, S::R, S::C, S::LFE, S::SL, S::SR, S::SL, S::SR}));
}

TEST(Layout, Validation) {
  const auto five_one = [](auto change) {
    ChannelLayout layout = *parse_layout_name("5.1");
    change(layout);
    return layout;
  };
  const std::pair<ChannelLayout, bool> cases[] = {
      {ChannelLayout{}, false},  // no channels
      {five_one([](ChannelLayout& l) { l.channel_count = 7; }), false},
      {five_one([](ChannelLayout& l) { l.has_lfe = 0; }), false},  // LFE slot without the flag
      {five_one([](ChannelLayout& l) { l.speakers[5] = S::C; l.amode = 0; }), false},  // flag without the slot
      // Two LFE slots, with the flag off so that only the slot count can reject it.
      {five_one([](ChannelLayout& l) { l.speakers[0] = S::LFE; l.has_lfe = 0; l.amode = 0; }), false},
      {five_one([](ChannelLayout& l) { l.channel_count = 1; l.has_lfe = 0; l.amode = 0; }), true},  // AMODE 0 unchecked
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(validate_layout(cases[i].first), cases[i].second) << i;
  // Each checked AMODE against another layout's full-band count.
  for (const auto& [name, amode] : {std::pair{"2.0", 5}, {"3.0", 8}, {"4.0", 9}, {"5.0", 2}}) {
    ChannelLayout layout = *parse_layout_name(name);
    layout.amode = static_cast<std::uint8_t>(amode);
    EXPECT_FALSE(validate_layout(layout)) << name;
  }
}

TEST(SampleFormat, ParsingAndConversions) {
  const struct {
    const char* name;
    std::vector<std::uint8_t> bytes;  // two stereo frames
    std::vector<double> left, right;
  } cases[] = {
      {"s16le", {0xFF, 0x7F, 0x00, 0x80, 0x01, 0x00, 0xFF, 0xFF}, {32767.0 / 32768, 1.0 / 32768}, {-1.0, -1.0 / 32768}},
      {"s24le", {0x00, 0x00, 0x80, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x40}, {-1.0, -1.0 / 8388608},
       {8388607.0 / 8388608, 0.5}},
      {"s32le", {0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0xC0, 0x01, 0, 0, 0}, {-1.0, -0.5},
       {2147483647.0 / 2147483648.0, 1.0 / 2147483648.0}},
      // 1.5, -2.0, NaN and 0.25: out of range and NaN clamp.
      {"f32le", {0, 0, 0xC0, 0x3F, 0, 0, 0, 0xC0, 0, 0, 0xC0, 0x7F, 0, 0, 0x80, 0x3E}, {1.0, 1.0}, {-1.0, 0.25}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto format = parse_sample_format(c.name);
    ASSERT_TRUE(format);
    EXPECT_EQ(sample_format_name(*format), c.name);
    EXPECT_EQ(bytes_per_sample(*format) * 4, c.bytes.size());
    const auto out = deinterleave_to_layout(c.bytes.data(), 2, *format, stereo_layout(), {S::L, S::R});
    EXPECT_EQ(out, (std::vector<std::vector<double>>{c.left, c.right}));
  }
  for (const char* bad : {"S16LE", "s16", "s16le "}) EXPECT_FALSE(parse_sample_format(bad)) << bad;
  EXPECT_EQ(bytes_per_sample(static_cast<SampleFormat>(9)), 0u);
  EXPECT_TRUE(sample_format_name(static_cast<SampleFormat>(9)).empty());
}

TEST(Deinterleave, SourceOrderToCodingOrder) {
  std::vector<std::uint8_t> bytes;  // two 5.1 frames in WAVE order L R C LFE SL SR, samples 1 to 12
  for (std::uint8_t v = 1; v <= 12; ++v) bytes.insert(bytes.end(), {v, 0});
  auto out = deinterleave_to_layout(bytes.data(), 2, SampleFormat::s16le, *parse_layout_name("5.1"),
                                    default_source_order("5.1"));
  for (auto& channel : out) std::ranges::for_each(channel, [](double& x) { x *= 32768; });
  EXPECT_EQ(out, (std::vector<std::vector<double>>{{3, 9}, {1, 7}, {2, 8}, {5, 11}, {6, 12}, {4, 10}}));
}

TEST(Deinterleave, Failures) {
  const std::vector<std::uint8_t> zeros(64, 0);
  const auto* bytes = zeros.data();
  const auto s24 = SampleFormat::s24le;
  const std::tuple<const std::uint8_t*, SampleFormat, Order, std::size_t, const char*> cases[] = {
      {nullptr, s24, {S::L, S::R, S::C}, 1, "null PCM data"},
      {nullptr, s24, {S::L, S::R, S::C}, 0, "accepted"},
      {bytes, static_cast<SampleFormat>(9), {S::L, S::R, S::C}, 1, "unknown PCM sample format"},
      {bytes, s24, {S::L, S::R, S::C, S::C}, 0, "PCM source order/layout mismatch"},
      {bytes, s24, {S::L, S::R, S::LFE}, 2, "source speaker not present in selected layout"},
      {bytes, s24, {S::L, S::R, S::SL}, 0, "accepted"},  // nothing to place, nothing to miss
  };
  for (const auto& [data, format, order, frames, expected] : cases) {
    std::string message = "accepted";
    try {
      EXPECT_EQ(deinterleave_to_layout(data, frames, format, *parse_layout_name("3.0"), order),
                std::vector<std::vector<double>>(3, std::vector<double>(frames)));
    } catch (const std::exception& e) {
      message = e.what();
      // Null data and an unknown format are the caller's mistakes, not the input's.
      EXPECT_EQ(dynamic_cast<const std::invalid_argument*>(&e) != nullptr, data == nullptr || format != s24);
    }
    EXPECT_EQ(message, expected);
  }
}

}  // namespace
}  // namespace tavrin
