#include "bitstream/cbr_sizer.h"

#include <gtest/gtest.h>

#include <vector>

#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using test::message_of;

// The first frames of every offered rate pair, and over any number of frames
// the total is the floor of the exact size.
TEST(CbrFrameSizer, OfferedRatesGiveTheDesignedSizes) {
  const struct {
    int bitrate, rate;
    unsigned base;
    bool fractional;
    std::vector<unsigned> first;
  } cases[] = {
      {768000, 44100, 2229, true, {2229, 2229, 2229, 2229, 2229, 2229, 2229, 2229, 2230}},
      {768000, 48000, 2048, false, {2048, 2048, 2048}},
      {1024000, 44100, 2972, true, {2972, 2972, 2972, 2972, 2972, 2972, 2973, 2972}},
      {1024000, 48000, 2730, true, {2730, 2731, 2731, 2730, 2731, 2731}},
      {1152000, 44100, 3343, true, {3343, 3344, 3344, 3343, 3344, 3344, 3343, 3344}},
      {1152000, 48000, 3072, false, {3072, 3072, 3072}},
      {1411200, 44100, 4096, false, {4096, 4096, 4096}},
      {1411200, 48000, 3763, true, {3763, 3763, 3763, 3763, 3764, 3763, 3763, 3763, 3763, 3764}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.bitrate << "@" << c.rate);
    CbrFrameSizer s = make_cbr_frame_sizer(c.rate, c.bitrate, 1024);
    EXPECT_EQ(s.base_bytes, c.base);
    EXPECT_EQ(s.fractional, c.fractional);
    const std::uint64_t exact_numerator = std::uint64_t(c.bitrate) * 1024, exact_denominator = 8 * std::uint64_t(c.rate);
    std::uint64_t sum = 0;
    for (std::uint64_t k = 1; k <= 5000; ++k) {
      const unsigned n = next_frame_bytes(s);
      if (k <= c.first.size()) {
        EXPECT_EQ(n, c.first[k - 1]) << "frame " << k;
      }
      ASSERT_TRUE(n == c.base || n == c.base + 1);
      sum += n;
      ASSERT_EQ(sum, k * exact_numerator / exact_denominator) << "k=" << k;
    }
  }
}

TEST(CbrFrameSizer, RejectsBadSettingsAndKeepsTheLimits) {
  const struct {
    int rate, bitrate, spf;
    std::string message;
  } cases[] = {
      {48000, 768000, 1000, "bad CBR frame sizer"},
      {0, 768000, 1024, "bad CBR frame sizer"},
      {48000, 768000, -1024, "bad CBR frame sizer"},
      {48000, 35625, 1024, "frame bytes out of range"},  // 95 bytes
      {8000, 6000, 1024 - 32, "frame bytes out of range"},
      {8000, 32770000, 32, "frame bytes out of range"},  // 16385 bytes
  };
  for (const auto& c : cases)
    EXPECT_EQ(message_of([&] { make_cbr_frame_sizer(c.rate, c.bitrate, c.spf); }), c.message)
        << c.rate << " " << c.bitrate << " " << c.spf;
  EXPECT_EQ(make_cbr_frame_sizer(8000, 6000, 1024).base_bytes, 96u);
  EXPECT_EQ(make_cbr_frame_sizer(8000, 1024000, 1024).base_bytes, 16384u);
  CbrFrameSizer blank;
  EXPECT_EQ(message_of([&] { next_frame_bytes(blank); }), "bad CBR frame sizer");

  // 16384.8 bytes a frame: the first frame fits, the second would not and
  // leaves the carried remainder alone.
  CbrFrameSizer s = make_cbr_frame_sizer(5, 20481, 32);
  ASSERT_EQ(s.base_bytes, 16384u);
  EXPECT_EQ(next_frame_bytes(s), 16384u);
  const std::uint64_t before = s.accumulator;
  EXPECT_EQ(message_of<std::runtime_error>([&] { next_frame_bytes(s); }), "fractional frame exceeds maximum");
  EXPECT_EQ(s.accumulator, before);
}

}  // namespace
}  // namespace tavrin
