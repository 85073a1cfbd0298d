#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

#include "input/layout.h"
#include "input/pcm_source.h"
#include "input/sample_format.h"

namespace tavrin {
namespace {

using S = SpeakerId;
using Order = std::vector<SpeakerId>;

TEST(SampleFormat, NamesSizesAndExactParsing) {
  const struct {
    const char* name;
    SampleFormat format;
    unsigned bytes;
  } cases[] = {{"s16le", SampleFormat::s16le, 2},
               {"s24le", SampleFormat::s24le, 3},
               {"s32le", SampleFormat::s32le, 4},
               {"f32le", SampleFormat::f32le, 4}};
  for (const auto& c : cases) {
    EXPECT_EQ(parse_sample_format(c.name), c.format) << c.name;
    EXPECT_EQ(sample_format_name(c.format), c.name);
    EXPECT_EQ(bytes_per_sample(c.format), c.bytes) << c.name;
  }
  for (const char* bad : {"S16LE", "s16", "s16le ", "", "u8"}) EXPECT_FALSE(parse_sample_format(bad)) << bad;
  const auto unknown = static_cast<SampleFormat>(9);
  EXPECT_EQ(bytes_per_sample(unknown), 0u);
  EXPECT_TRUE(sample_format_name(unknown).empty());
}

TEST(Layout, TableOfLayouts) {
  const struct {
    const char* name;
    Order coding;
    unsigned amode;
    bool lfe;
    Order source;
  } cases[] = {
      {"2.0", {S::L, S::R}, 2, false, {S::L, S::R}},
      {"3.0", {S::C, S::L, S::R}, 5, false, {S::L, S::R, S::C}},
      {"4.0", {S::L, S::R, S::SL, S::SR}, 8, false, {S::L, S::R, S::SL, S::SR}},
      {"5.0", {S::C, S::L, S::R, S::SL, S::SR}, 9, false, {S::L, S::R, S::C, S::SL, S::SR}},
      {"5.1", {S::C, S::L, S::R, S::SL, S::SR, S::LFE}, 9, true, {S::L, S::R, S::C, S::LFE, S::SL, S::SR}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto layout = parse_layout_name(c.name);
    ASSERT_TRUE(layout);
    EXPECT_EQ(layout->name, c.name);
    ASSERT_EQ(layout->channel_count, c.coding.size());
    EXPECT_EQ(Order(layout->speakers.begin(), layout->speakers.begin() + layout->channel_count), c.coding);
    for (std::size_t i = c.coding.size(); i < 6; ++i) EXPECT_EQ(layout->speakers[i], S::L);
    EXPECT_EQ(layout->amode, c.amode);
    EXPECT_EQ(layout->has_lfe != 0, c.lfe);
    EXPECT_EQ(full_band_count(*layout), c.coding.size() - (c.lfe ? 1 : 0));
    EXPECT_TRUE(validate_layout(*layout));
    EXPECT_EQ(default_source_order(c.name), c.source);
  }
  EXPECT_EQ(parse_layout_name("stereo")->name, "2.0");
  EXPECT_EQ(stereo_layout().name, "2.0");
  for (const char* bad : {"5.1 ", "5.1x", "Stereo", "7.1", "", "1.0"}) {
    EXPECT_FALSE(parse_layout_name(bad)) << bad;
    EXPECT_TRUE(default_source_order(bad).empty()) << bad;
  }
}

TEST(Layout, WaveMasks) {
  const struct {
    unsigned channels;
    std::uint32_t mask;
    const char* layout;  // nullptr: rejected
    Order source;
  } cases[] = {
      {2, 0x3, "2.0", {S::L, S::R}},
      {3, 0x7, "3.0", {S::L, S::R, S::C}},
      {4, 0x603, "4.0", {S::L, S::R, S::SL, S::SR}},
      {4, 0x33, "4.0", {S::L, S::R, S::SL, S::SR}},
      {5, 0x607, "5.0", {S::L, S::R, S::C, S::SL, S::SR}},
      {5, 0x37, "5.0", {S::L, S::R, S::C, S::SL, S::SR}},
      {6, 0x60F, "5.1", {S::L, S::R, S::C, S::LFE, S::SL, S::SR}},
      {6, 0x3F, "5.1", {S::L, S::R, S::C, S::LFE, S::SL, S::SR}},
      {6, 0x63F, nullptr, {S::L, S::R, S::C, S::LFE, S::SL, S::SR, S::SL, S::SR}},
      {3, 0x3, nullptr, {S::L, S::R}},
      {1, 0x4, nullptr, {S::C}},
      {4, 0x607, nullptr, {S::L, S::R, S::C, S::SL, S::SR}},
      {0, 0x0, nullptr, {}},
      {65535, 0x3F, nullptr, {S::L, S::R, S::C, S::LFE, S::SL, S::SR}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.channels << " channels, mask " << std::hex << c.mask);
    const auto layout = layout_from_wave_mask(c.channels, c.mask);
    if (c.layout) {
      ASSERT_TRUE(layout);
      EXPECT_EQ(layout->name, c.layout);
    } else {
      EXPECT_FALSE(layout);
    }
    EXPECT_EQ(source_order_from_mask(c.mask), c.source);
  }
}

TEST(Layout, Validation) {
  const ChannelLayout five_one = *parse_layout_name("5.1");
  auto with = [](ChannelLayout layout, auto change) {
    change(layout);
    return layout;
  };
  const struct {
    const char* what;
    ChannelLayout layout;
    bool valid;
  } cases[] = {
      {"no channels", with(five_one, [](ChannelLayout& l) { l.channel_count = 0; }), false},
      {"seven channels", with(five_one, [](ChannelLayout& l) { l.channel_count = 7; }), false},
      {"LFE slot without flag", with(five_one, [](ChannelLayout& l) { l.has_lfe = 0; }), false},
      {"flag without LFE slot",
       with(five_one,
            [](ChannelLayout& l) {
              l.speakers[5] = S::C;
              l.amode = 0;
            }),
       false},
      {"two LFE slots",
       with(five_one,
            [](ChannelLayout& l) {
              l.speakers[0] = S::LFE;
              l.amode = 0;
            }),
       false},
      {"AMODE 9 with four full-band", with(five_one, [](ChannelLayout& l) { l.amode = 8; }), false},
      {"AMODE 2 with three", with(*parse_layout_name("3.0"), [](ChannelLayout& l) { l.amode = 2; }), false},
      {"unchecked AMODE", with(five_one, [](ChannelLayout& l) { l.amode = 3; }), true},
      {"mono, AMODE 0", with(ChannelLayout{}, [](ChannelLayout& l) { l.channel_count = 1; }), true},
  };
  for (const auto& c : cases) EXPECT_EQ(validate_layout(c.layout), c.valid) << c.what;
}

std::vector<std::uint8_t> bytes_of(std::initializer_list<int> values) {
  std::vector<std::uint8_t> out;
  for (int v : values) out.push_back(static_cast<std::uint8_t>(v));
  return out;
}

std::vector<std::uint8_t> floats_of(std::initializer_list<float> values) {
  std::vector<std::uint8_t> out(values.size() * 4);
  std::memcpy(out.data(), values.begin(), out.size());
  return out;
}

TEST(Deinterleave, SampleConversions) {
  const ChannelLayout stereo = stereo_layout();
  const Order lr = {S::L, S::R};
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const struct {
    SampleFormat format;
    std::vector<std::uint8_t> bytes;  // two frames
    std::vector<double> left, right;
  } cases[] = {
      {SampleFormat::s16le, bytes_of({0xFF, 0x7F, 0x00, 0x80, 0x01, 0x00, 0xFF, 0xFF}),
       {32767.0 / 32768, 1.0 / 32768}, {-1.0, -1.0 / 32768}},
      {SampleFormat::s24le, bytes_of({0x00, 0x00, 0x80, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x40}),
       {-1.0, -1.0 / 8388608}, {8388607.0 / 8388608, 0.5}},
      {SampleFormat::s32le,
       bytes_of({0x00, 0x00, 0x00, 0x80, 0xFF, 0xFF, 0xFF, 0x7F, 0x00, 0x00, 0x00, 0xC0, 0x01, 0x00, 0x00, 0x00}),
       {-1.0, -0.5}, {2147483647.0 / 2147483648.0, 1.0 / 2147483648.0}},
      {SampleFormat::f32le, floats_of({1.5f, -2.0f, nan, 0.25f}), {1.0, 1.0}, {-1.0, 0.25}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(sample_format_name(c.format));
    const auto out = deinterleave_to_layout(c.bytes.data(), 2, c.format, stereo, lr);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0], c.left);
    EXPECT_EQ(out[1], c.right);
  }
}

TEST(Deinterleave, Failures) {
  const ChannelLayout three = *parse_layout_name("3.0");
  const std::vector<std::uint8_t> bytes(64, 0);
  const struct {
    const std::uint8_t* data;
    SampleFormat format;
    Order order;
    std::size_t frames;
    const char* message;  // nullptr: succeeds
  } cases[] = {
      {nullptr, SampleFormat::s16le, {S::L, S::R, S::C}, 1, "null PCM data"},
      {nullptr, SampleFormat::s16le, {S::L, S::R, S::C}, 0, nullptr},
      {bytes.data(), static_cast<SampleFormat>(9), {S::L, S::R, S::C}, 1, "unknown PCM sample format"},
      {bytes.data(), SampleFormat::s24le, {S::L, S::R}, 1, "PCM source order/layout mismatch"},
      {bytes.data(), SampleFormat::s24le, {S::L, S::R, S::C, S::C}, 0, "PCM source order/layout mismatch"},
      {bytes.data(), SampleFormat::s24le, {S::L, S::R, S::LFE}, 2, "source speaker not present in selected layout"},
      {bytes.data(), SampleFormat::s24le, {S::L, S::R, S::SL}, 0, nullptr},  // nothing to place, nothing to miss
  };
  for (const auto& c : cases) {
    std::string message = "accepted";
    try {
      EXPECT_EQ(deinterleave_to_layout(c.data, c.frames, c.format, three, c.order),
                std::vector<std::vector<double>>(3, std::vector<double>(c.frames)));
    } catch (const std::exception& e) {
      message = e.what();
      const bool caller_error = c.data == nullptr || c.format != SampleFormat::s24le;
      EXPECT_EQ(dynamic_cast<const std::invalid_argument*>(&e) != nullptr, caller_error) << message;
    }
    EXPECT_EQ(message, c.message ? c.message : "accepted");
  }
}

TEST(PcmSource, LabelsAndFrameArithmetic) {
  PcmSourceInfo info;
  info.format = SampleFormat::s24le;
  info.channels = 6;
  info.data_bytes = 18 * 1000 + 17;
  EXPECT_EQ(input_label(info), "WAVE");
  EXPECT_EQ(frame_bytes(info), 18u);
  EXPECT_EQ(frame_count(info), 1000u);
  info.extensible = true;
  EXPECT_EQ(input_label(info), "WAVEFORMATEXTENSIBLE");
  info.raw = true;
  EXPECT_EQ(input_label(info), "raw PCM");
  info.format = SampleFormat::s32le;
  info.channels = 2;
  info.data_bytes = std::uint64_t{6} << 30;  // beyond 32 bits
  EXPECT_EQ(frame_count(info), (std::uint64_t{6} << 30) / 8);
  info.channels = 0;
  EXPECT_EQ(frame_count(info), 0u);
}

}  // namespace
}  // namespace tavrin
