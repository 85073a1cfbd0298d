#include <gtest/gtest.h>

#include <stdexcept>

#include "input/raw.h"

namespace tavrin {
namespace {

using S = SpeakerId;

RawPcmDescription describe(std::uint32_t rate, SampleFormat format, const char* layout,
                           std::vector<SpeakerId> order = {}) {
  return {rate, format, *parse_layout_name(layout), std::move(order)};
}

TEST(RawPcm, Failures) {
  ChannelLayout broken = *parse_layout_name("5.1");
  broken.has_lfe = 0;
  const struct {
    const char* what;
    std::uint64_t bytes;
    RawPcmDescription description;
    const char* message;
  } cases[] = {
      {"96 kHz", 4000, describe(96000, SampleFormat::s16le, "2.0"), "raw PCM sample rate must be 44100 or 48000"},
      {"rate before layout", 4000, {96000, SampleFormat::s16le, broken, {}},
       "raw PCM sample rate must be 44100 or 48000"},
      {"bad layout", 18000, {48000, SampleFormat::s24le, broken, {}}, "invalid raw PCM layout"},
      {"five speakers for 5.1", 18000,
       describe(48000, SampleFormat::s24le, "5.1", {S::L, S::R, S::C, S::SL, S::SR}),
       "raw PCM source-order channel count mismatch"},
      {"unknown layout name, no default order", 0, {48000, SampleFormat::s16le, [] {
                                                      ChannelLayout l = stereo_layout();
                                                      l.name = "custom";
                                                      return l;
                                                    }(),
                                                    {}},
       "raw PCM source-order channel count mismatch"},
      {"partial frame", 18 * 1000 + 1, describe(44100, SampleFormat::s24le, "5.1"),
       "raw PCM byte count is not whole interleaved frames"},
      {"unknown sample format", 0, describe(44100, static_cast<SampleFormat>(7), "2.0"),
       "raw PCM byte count is not whole interleaved frames"},
  };
  for (const auto& c : cases) {
    try {
      open_raw(c.bytes, c.description);
      ADD_FAILURE() << c.what << ": accepted";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), c.message) << c.what;
    }
  }
}

TEST(RawPcm, Describes) {
  const PcmSourceInfo info = open_raw(18 * 1000, describe(48000, SampleFormat::s24le, "5.1"));
  EXPECT_TRUE(info.raw);
  EXPECT_EQ(input_label(info), "raw PCM");
  EXPECT_EQ(info.format, SampleFormat::s24le);
  EXPECT_EQ(info.channels, 6);
  EXPECT_EQ(info.sample_rate, 48000u);
  EXPECT_EQ(info.layout.name, "5.1");
  EXPECT_EQ(info.source_order, default_source_order("5.1"));
  EXPECT_EQ(info.data_offset, 0u);
  EXPECT_EQ(frame_count(info), 1000u);

  const std::vector<SpeakerId> explicit_order = {S::C, S::L, S::R};
  const PcmSourceInfo three = open_raw(0, describe(44100, SampleFormat::f32le, "3.0", explicit_order));
  EXPECT_EQ(three.source_order, explicit_order);
  EXPECT_EQ(frame_count(three), 0u);  // an empty file is the driver's business

  const std::uint64_t huge = std::uint64_t{8} << 32;  // 32 GiB of s32le stereo
  EXPECT_EQ(frame_count(open_raw(huge, describe(44100, SampleFormat::s32le, "2.0"))), huge / 8);
}

}  // namespace
}  // namespace tavrin
