#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>

#include "input/raw.h"

namespace tavrin {
namespace {

using S = SpeakerId;

RawPcmDescription describe(std::uint32_t rate, SampleFormat format, const char* layout, std::vector<S> order = {}) {
  return {rate, format, *parse_layout_name(layout), std::move(order)};
}

TEST(RawPcm, Failures) {
  RawPcmDescription broken = describe(96000, SampleFormat::s24le, "5.1");
  broken.layout.has_lfe = 0;
  constexpr char kFrames[] = "raw PCM byte count is not whole interleaved frames";
  const std::tuple<std::uint64_t, RawPcmDescription, const char*> cases[] = {
      {18000, broken, "raw PCM sample rate must be 44100 or 48000"},  // the rate is checked first
      {18000, {48000, SampleFormat::s24le, broken.layout, {}}, "invalid raw PCM layout"},
      {18000, describe(48000, SampleFormat::s24le, "5.1", {S::L, S::R, S::C, S::SL, S::SR}),
       "raw PCM source-order channel count mismatch"},
      {18 * 1000 + 1, describe(44100, SampleFormat::s24le, "5.1"), kFrames},
      {0, describe(44100, static_cast<SampleFormat>(7), "2.0"), kFrames},  // no frame size to divide by
  };
  for (const auto& [bytes, description, message] : cases) {
    try {
      open_raw(bytes, description);
      ADD_FAILURE() << message << ": accepted";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), message);
    }
  }
}

TEST(RawPcm, Describes) {
  const PcmSourceInfo info = open_raw(18 * 1000, describe(48000, SampleFormat::s24le, "5.1"));
  EXPECT_EQ(input_label(info), "raw PCM");
  EXPECT_EQ(info.format, SampleFormat::s24le);
  EXPECT_EQ(info.channels, 6);
  EXPECT_EQ(info.sample_rate, 48000u);
  EXPECT_EQ(info.layout.name, "5.1");
  EXPECT_EQ(info.source_order, default_source_order("5.1"));
  EXPECT_EQ(frame_count(info), 1000u);
  PcmSourceInfo partial = info;
  partial.data_bytes += 17;
  EXPECT_EQ(frame_count(partial), 1000u);
  EXPECT_EQ(frame_count(PcmSourceInfo{}), 0u);  // no channels, no division

  const std::vector<S> explicit_order = {S::C, S::L, S::R};
  EXPECT_EQ(open_raw(0, describe(44100, SampleFormat::f32le, "3.0", explicit_order)).source_order, explicit_order);
  const std::uint64_t huge = std::uint64_t{8} << 32;  // 32 GiB of s32le stereo
  EXPECT_EQ(frame_count(open_raw(huge, describe(44100, SampleFormat::s32le, "2.0"))), huge / 8);
}

}  // namespace
}  // namespace tavrin
