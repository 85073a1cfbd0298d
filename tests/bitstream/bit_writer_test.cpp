#include "bitstream/bit_writer.h"

#include <gtest/gtest.h>

#include <random>

#include "bitstream/test_util.h"

namespace tavrin {
namespace {

// The accumulating writer against the plain bit-by-bit definition on any mix
// of widths (0..32), signed runs and alignments, looking at the bytes
// mid-stream now and then.
TEST(BitWriter, MatchesBitByBitReference) {
  std::mt19937 rng(7);
  const auto next = [&] { return static_cast<std::uint32_t>(rng()); };
  BitWriter w;
  std::vector<std::uint8_t> ref;
  std::uint32_t ref_bits = 0;
  const auto put = [&](std::uint32_t value, unsigned width) {
    for (unsigned b = width; b-- > 0; ++ref_bits) {
      if (ref_bits % 8 == 0) ref.push_back(0);
      if ((value >> b) & 1u) ref.back() |= static_cast<std::uint8_t>(0x80u >> (ref_bits % 8));
    }
  };
  for (int i = 0; i < 20000; ++i) {
    const unsigned kind = next() % 50;
    const unsigned width = kind == 0 ? (8 - ref_bits % 8) % 8 : kind < 6 ? 1 + next() % 31 : next() % 33;
    const std::uint32_t mask = width == 32 ? ~0u : (1u << width) - 1u;
    if (kind == 0) {
      w.align_to_byte();
      put(0, width);
    } else if (kind < 6) {
      std::vector<std::int32_t> run(next() % 20);
      for (auto& v : run) v = static_cast<std::int32_t>(next() & mask) - (std::int32_t{1} << (width - 1));
      w.write_signed_run(run.data(), run.size(), width);
      for (std::int32_t v : run) put(static_cast<std::uint32_t>(v) & mask, width);
    } else {
      const std::uint32_t value = next() & mask;
      w.write(value, width);
      put(value, width);
    }
    if (next() % 37 == 0) {
      ASSERT_EQ(w.bytes(), ref) << "after step " << i;
    }
  }
  // A refused write leaves no trace, not even in the partial last byte.
  ASSERT_EQ(w.bytes(), ref);
  EXPECT_EQ(test::message_of([&] { w.write(2, 1); }), "value does not fit bit width");
  EXPECT_EQ(test::message_of([&] { w.write(0, 33); }), "bit width > 32");
  EXPECT_EQ(w.bit_count(), ref_bits);
  EXPECT_EQ(w.take_bytes(), ref);
  EXPECT_EQ(w.bit_count(), 0u);
  EXPECT_TRUE(w.bytes().empty());
}

}  // namespace
}  // namespace tavrin
