#include "bitstream/bit_writer.h"

#include <gtest/gtest.h>

#include <random>

#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using test::message_of;

TEST(BitWriter, PacksMsbFirst) {
  struct Step {
    std::uint32_t value;
    unsigned width;  // 99: align_to_byte
  };
  struct Case {
    std::vector<Step> steps;
    std::vector<std::uint8_t> bytes;
    std::uint32_t bits;
  };
  const std::vector<Case> cases = {
      {{{0x7FFE8001u, 32}}, {0x7F, 0xFE, 0x80, 0x01}, 32},
      {{{1, 1}, {0, 5}, {0, 1}}, {0x80}, 7},
      {{{1, 1}, {0, 5}, {0, 1}, {0, 99}}, {0x80}, 8},
      {{{0, 0}}, {}, 0},
      {{{0, 99}}, {}, 0},
      {{{0xFFFFFFFFu, 32}}, {0xFF, 0xFF, 0xFF, 0xFF}, 32},
      {{{1, 1}, {0x80000001u, 32}, {0, 99}}, {0xC0, 0x00, 0x00, 0x00, 0x80}, 40},
      {{{3, 2}, {0, 99}, {1, 1}}, {0xC0, 0x80}, 9},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    BitWriter w;
    for (const Step& s : cases[i].steps) s.width == 99 ? w.align_to_byte() : w.write(s.value, s.width);
    EXPECT_EQ(w.bytes(), cases[i].bytes) << "case " << i;
    EXPECT_EQ(w.bit_count(), cases[i].bits) << "case " << i;
  }
}

TEST(BitWriter, RejectsBeforeWriting) {
  const std::vector<std::pair<std::pair<std::uint32_t, unsigned>, std::string>> cases = {
      {{2, 1}, "value does not fit bit width"},
      {{1, 0}, "value does not fit bit width"},
      {{0x10000, 16}, "value does not fit bit width"},
      {{0, 33}, "bit width > 32"},
      {{0xFFFFFFFFu, 64}, "bit width > 32"},
  };
  for (const auto& [args, want] : cases) {
    BitWriter w;
    w.write(5, 3);
    EXPECT_EQ(message_of([&] { w.write(args.first, args.second); }), want);
    EXPECT_EQ(w.bit_count(), 3u);
    EXPECT_EQ(w.bytes(), std::vector<std::uint8_t>{0xA0});
  }
}

// The accumulating writer must agree with the plain bit-by-bit definition on any
// mix of widths and alignments.
TEST(BitWriter, MatchesBitByBitReference) {
  std::mt19937 rng(7);
  BitWriter w;
  std::vector<std::uint8_t> ref;
  std::uint32_t ref_bits = 0;
  for (int i = 0; i < 20000; ++i) {
    const unsigned width = rng() % 33;
    if (rng() % 50 == 0) {
      w.align_to_byte();
      while (ref_bits % 8 != 0) ++ref_bits;
      ASSERT_EQ(w.bit_count(), ref_bits);
      continue;
    }
    const std::uint32_t value = width == 32 ? static_cast<std::uint32_t>(rng()) : static_cast<std::uint32_t>(rng()) & ((1u << width) - 1u);
    w.write(value, width);
    for (unsigned b = width; b-- > 0;) {
      if (ref_bits / 8 == ref.size()) ref.push_back(0);
      if ((value >> b) & 1u) ref[ref_bits / 8] = static_cast<std::uint8_t>(ref[ref_bits / 8] | (0x80u >> (ref_bits % 8)));
      ++ref_bits;
    }
    // Looking at the bytes mid-stream must not disturb later writes.
    if (rng() % 37 == 0) {
      ASSERT_EQ(w.bytes(), ref) << "after write " << i;
    }
  }
  EXPECT_EQ(w.bit_count(), ref_bits);
  EXPECT_EQ(w.bytes(), ref);
  const auto taken = w.take_bytes();
  EXPECT_EQ(taken, ref);
  EXPECT_EQ(w.bit_count(), 0u);
  EXPECT_TRUE(w.bytes().empty());
}

}  // namespace
}  // namespace tavrin
