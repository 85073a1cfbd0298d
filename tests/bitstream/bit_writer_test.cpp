#include "bitstream/bit_writer.h"

#include <gtest/gtest.h>

#include <random>

#include "bitstream/test_util.h"

namespace tavrin {
namespace {

constexpr unsigned kAlign = 99;  // a step that aligns instead of writing

TEST(BitWriter, RejectsBeforeWriting) {
  const std::pair<std::pair<std::uint32_t, unsigned>, std::string> cases[] = {
      {{2, 1}, "value does not fit bit width"},
      {{1, 0}, "value does not fit bit width"},
      {{0x10000, 16}, "value does not fit bit width"},
      {{0, 33}, "bit width > 32"},
  };
  for (const auto& [args, want] : cases) {
    BitWriter w;
    w.write(5, 3);
    EXPECT_EQ(test::message_of([&] { w.write(args.first, args.second); }), want);
    EXPECT_EQ(w.bit_count(), 3u);
    EXPECT_EQ(w.bytes(), std::vector<std::uint8_t>{0xA0});
  }
}

// The accumulating writer against the plain MSB-first, bit-by-bit definition
// on any mix of widths (0..32) and alignments, looking at the bytes
// mid-stream now and then.
TEST(BitWriter, MatchesBitByBitReference) {
  std::mt19937 rng(7);
  BitWriter w;
  std::vector<std::uint8_t> ref;
  std::uint32_t ref_bits = 0;
  for (int i = 0; i < 20000; ++i) {
    const unsigned width = rng() % 50 == 0 ? kAlign : rng() % 33;
    const std::uint32_t value = width >= 32 ? static_cast<std::uint32_t>(rng()) : static_cast<std::uint32_t>(rng()) & ((1u << width) - 1u);
    width == kAlign ? w.align_to_byte() : w.write(value, width);
    for (unsigned b = width == kAlign ? (8 - ref_bits % 8) % 8 : width; b-- > 0; ++ref_bits) {
      if (ref_bits / 8 == ref.size()) ref.push_back(0);
      if (width != kAlign && (value >> b) & 1u) ref[ref_bits / 8] |= static_cast<std::uint8_t>(0x80u >> (ref_bits % 8));
    }
    if (rng() % 37 == 0) {
      ASSERT_EQ(w.bytes(), ref) << "after step " << i;
    }
  }
  EXPECT_EQ(w.bit_count(), ref_bits);
  EXPECT_EQ(w.take_bytes(), ref);
  EXPECT_EQ(w.bit_count(), 0u);
  EXPECT_TRUE(w.bytes().empty());
}

}  // namespace
}  // namespace tavrin
