#include "bitstream/cbr_sizer.h"

#include <gtest/gtest.h>

#include <vector>

#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using test::message_of;

TEST(CbrFrameSizer, OfferedRatesGiveTheDesignedSizes) {
  struct Case {
    int bitrate, rate;
    unsigned base;
    bool fractional;
    std::vector<unsigned> first;
  };
  const std::vector<Case> cases = {
      {768000, 44100, 2229, true, {2229, 2229, 2229, 2229, 2229, 2229, 2229, 2229, 2230}},
      {768000, 48000, 2048, false, {2048, 2048, 2048, 2048, 2048}},
      {1024000, 44100, 2972, true, {2972, 2972, 2972, 2972, 2972, 2972, 2973, 2972}},
      {1024000, 48000, 2730, true, {2730, 2731, 2731, 2730, 2731, 2731}},
      {1152000, 44100, 3343, true, {3343, 3344, 3344, 3343, 3344, 3344, 3343, 3344}},
      {1152000, 48000, 3072, false, {3072, 3072, 3072}},
      {1411200, 44100, 4096, false, {4096, 4096, 4096}},
      {1411200, 48000, 3763, true, {3763, 3763, 3763, 3763, 3764, 3763, 3763, 3763, 3763, 3764}},
  };
  for (const auto& c : cases) {
    CbrFrameSizer s = make_cbr_frame_sizer(c.rate, c.bitrate, 1024);
    EXPECT_EQ(s.base_bytes, c.base) << c.bitrate << "@" << c.rate;
    EXPECT_EQ(s.fractional, c.fractional) << c.bitrate << "@" << c.rate;
    for (std::size_t i = 0; i < c.first.size(); ++i)
      EXPECT_EQ(next_frame_bytes(s), c.first[i]) << c.bitrate << "@" << c.rate << " frame " << i;

    // Over any number of frames the total is the floor of the exact size.
    CbrFrameSizer t = make_cbr_frame_sizer(c.rate, c.bitrate, 1024);
    std::uint64_t sum = 0;
    for (std::uint64_t k = 1; k <= 5000; ++k) {
      const unsigned n = next_frame_bytes(t);
      ASSERT_TRUE(n == c.base || n == c.base + 1);
      sum += n;
      ASSERT_EQ(sum, k * t.numerator / t.denominator) << c.bitrate << "@" << c.rate << " k=" << k;
    }
  }
}

TEST(CbrFrameSizer, RejectsBadSettings) {
  struct Case {
    int rate, bitrate, spf;
    std::string message;
  };
  const std::vector<Case> cases = {
      {48000, 768000, 1000, "bad CBR frame sizer"},
      {48000, 0, 1024, "bad CBR frame sizer"},
      {0, 768000, 1024, "bad CBR frame sizer"},
      {-48000, 768000, 1024, "bad CBR frame sizer"},
      {48000, 768000, -1024, "bad CBR frame sizer"},
      {48000, 35625, 1024, "frame bytes out of range"},  // 95 bytes
      {48000, 768000, 0, "frame bytes out of range"},
      {8000, 32770000, 32, "frame bytes out of range"},  // 16385 bytes
  };
  for (const auto& c : cases)
    EXPECT_EQ(message_of([&] { make_cbr_frame_sizer(c.rate, c.bitrate, c.spf); }), c.message)
        << c.rate << " " << c.bitrate << " " << c.spf;
  // Base 96 and 16384 are the inclusive limits.
  EXPECT_EQ(make_cbr_frame_sizer(8000, 6000, 1024).base_bytes, 96u);
  EXPECT_EQ(make_cbr_frame_sizer(8000, 1024000, 1024 - 32).base_bytes, 15872u);
  EXPECT_EQ(make_cbr_frame_sizer(8000, 1024000, 1024).base_bytes, 16384u);
  EXPECT_EQ(message_of([&] { make_cbr_frame_sizer(8000, 6000, 1024 - 32); }), "frame bytes out of range");
}

TEST(CbrFrameSizer, LongFrameBeyondMaximumFailsAndKeepsState) {
  // 16384.8 bytes a frame: the first frame fits, the second would not.
  CbrFrameSizer s = make_cbr_frame_sizer(5, 20481, 32);
  ASSERT_EQ(s.base_bytes, 16384u);
  ASSERT_TRUE(s.fractional);
  EXPECT_EQ(next_frame_bytes(s), 16384u);
  const CbrFrameSizer before = s;
  EXPECT_EQ(message_of<std::runtime_error>([&] { next_frame_bytes(s); }), "fractional frame exceeds maximum");
  EXPECT_EQ(s.accumulator, before.accumulator);
  CbrFrameSizer blank;
  EXPECT_EQ(message_of([&] { next_frame_bytes(blank); }), "bad CBR frame sizer");
}

}  // namespace
}  // namespace tavrin
