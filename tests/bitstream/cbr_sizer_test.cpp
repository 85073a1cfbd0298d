#include "bitstream/cbr_sizer.h"

#include <gtest/gtest.h>

#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using test::message_of;

// The first k frames add up to the floor of the exact size; 1411200 at 44100
// is exactly 4096 bytes and never needs a longer frame.
TEST(CbrFrameSizer, SumsToTheExactSize) {
  for (const auto& [bitrate, rate] : {std::pair{768000, 44100}, std::pair{1411200, 44100}}) {
    CbrFrameSizer s = make_cbr_frame_sizer(rate, bitrate, 1024);
    const std::uint64_t numerator = std::uint64_t(bitrate) * 1024, denominator = 8 * std::uint64_t(rate);
    std::uint64_t sum = 0;
    for (std::uint64_t k = 1; k <= 2000; ++k) {
      sum += next_frame_bytes(s);
      ASSERT_EQ(sum, k * numerator / denominator) << bitrate << "@" << rate << " frame " << k;
    }
    EXPECT_EQ(s.fractional, bitrate == 768000);
  }
}

TEST(CbrFrameSizer, KeepsTheLimits) {
  EXPECT_EQ(make_cbr_frame_sizer(8000, 6000, 1024).base_bytes, 96u);
  EXPECT_EQ(make_cbr_frame_sizer(8000, 1024000, 1024).base_bytes, 16384u);
  EXPECT_EQ(message_of([] { make_cbr_frame_sizer(8000, 5999, 1024); }), "frame bytes out of range");  // 95.98
  EXPECT_EQ(message_of([] { make_cbr_frame_sizer(8000, 1024063, 1024); }), "frame bytes out of range");
  EXPECT_EQ(message_of([] { make_cbr_frame_sizer(0, 768000, 1024); }), "bad CBR frame sizer");

  // 16384.8 bytes a frame: the second would not fit and keeps the remainder.
  CbrFrameSizer s = make_cbr_frame_sizer(5, 20481, 32);
  EXPECT_EQ(next_frame_bytes(s), 16384u);
  const std::uint64_t before = s.accumulator;
  EXPECT_EQ(message_of<std::runtime_error>([&] { next_frame_bytes(s); }), "fractional frame exceeds maximum");
  EXPECT_EQ(s.accumulator, before);
}

}  // namespace
}  // namespace tavrin
