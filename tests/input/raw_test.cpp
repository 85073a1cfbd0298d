#include <gtest/gtest.h>

#include <stdexcept>

#include "bitstream/test_util.h"
#include "input/raw.h"

namespace tavrin {
namespace {

RawPcmDescription describe(std::uint32_t rate, SampleFormat format, const char* layout) {
  return {rate, format, *parse_layout_name(layout), {}};
}

TEST(RawPcm, DescribesWholeFramesOnly) {
  const PcmSourceInfo info = open_raw(18 * 1000, describe(48000, SampleFormat::s24le, "5.1"));
  EXPECT_EQ(input_label(info), "raw PCM");
  EXPECT_EQ(info.sample_rate, 48000u);
  EXPECT_EQ(info.layout.name, "5.1");
  EXPECT_EQ(info.source_order, default_source_order("5.1"));
  EXPECT_EQ(frame_count(info), 1000u);
  const std::uint64_t huge = std::uint64_t{8} << 32;  // 32 GiB of s32le stereo
  EXPECT_EQ(frame_count(open_raw(huge, describe(44100, SampleFormat::s32le, "2.0"))), huge / 8);
  EXPECT_EQ(test::message_of<std::runtime_error>([] { open_raw(18 * 1000 + 1, describe(48000, SampleFormat::s24le, "5.1")); }),
            "raw PCM byte count is not whole interleaved frames");
}

}  // namespace
}  // namespace tavrin
