#include "bitstream/cbr_sizer.h"

#include <gtest/gtest.h>

#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using test::message_of;

// Over any number of frames the sizes add up to the floor of the exact size,
// which leaves each frame the base size or one byte more.
TEST(CbrFrameSizer, SumsToTheExactSize) {
  const std::pair<int, int> rates[] = {{768000, 44100}, {1024000, 48000}, {1411200, 44100}};
  for (const auto& [bitrate, rate] : rates) {
    CbrFrameSizer s = make_cbr_frame_sizer(rate, bitrate, 1024);
    const std::uint64_t numerator = std::uint64_t(bitrate) * 1024, denominator = 8 * std::uint64_t(rate);
    std::uint64_t sum = 0;
    bool longer = false;
    for (std::uint64_t k = 1; k <= 5000; ++k) {
      const unsigned n = next_frame_bytes(s);
      longer |= n > s.base_bytes;
      sum += n;
      ASSERT_EQ(sum, k * numerator / denominator) << bitrate << "@" << rate << " frame " << k;
    }
    EXPECT_EQ(s.fractional, longer) << bitrate << "@" << rate;
  }
}

TEST(CbrFrameSizer, RejectsBadSettingsAndKeepsTheLimits) {
  const struct {
    int rate, bitrate, spf;
    const char* message;
  } cases[] = {
      {48000, 768000, 1000, "bad CBR frame sizer"},
      {0, 768000, 1024, "bad CBR frame sizer"},
      {48000, 768000, -1024, "bad CBR frame sizer"},
      {8000, 5999, 1024, "frame bytes out of range"},     // 95.98 bytes
      {8000, 1024063, 1024, "frame bytes out of range"},  // 16385.008 bytes
  };
  for (const auto& c : cases)
    EXPECT_EQ(message_of([&] { make_cbr_frame_sizer(c.rate, c.bitrate, c.spf); }), c.message)
        << c.rate << " " << c.bitrate << " " << c.spf;
  EXPECT_EQ(make_cbr_frame_sizer(8000, 6000, 1024).base_bytes, 96u);
  EXPECT_EQ(make_cbr_frame_sizer(8000, 1024000, 1024).base_bytes, 16384u);
  CbrFrameSizer blank;
  EXPECT_EQ(message_of([&] { next_frame_bytes(blank); }), "bad CBR frame sizer");

  // 16384.8 bytes a frame: the second frame would not fit and must leave the
  // carried remainder alone.
  CbrFrameSizer s = make_cbr_frame_sizer(5, 20481, 32);
  EXPECT_EQ(next_frame_bytes(s), 16384u);
  const std::uint64_t before = s.accumulator;
  EXPECT_EQ(message_of<std::runtime_error>([&] { next_frame_bytes(s); }), "fractional frame exceeds maximum");
  EXPECT_EQ(s.accumulator, before);
}

}  // namespace
}  // namespace tavrin
