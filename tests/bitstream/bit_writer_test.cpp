#include "bitstream/bit_writer.h"

#include <gtest/gtest.h>

#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Word flushes are crossed and met exactly, by single writes and by signed
// runs, where even an empty run on a word boundary must add nothing; bytes()
// leaves a partial byte that the next write or run has to take back; a 2-byte
// writer has to grow.
TEST(BitWriter, PacksMsbFirst) {
  BitWriter w(2);
  const std::int32_t run[] = {-16, 15, -1, 0, 7, -9, 3, -2, 11}, wide[] = {-(1 << 30), (1 << 30) - 1};
  w.write(0b101, 3);
  EXPECT_EQ(w.bytes(), Bytes{0xA0});
  w.write(0x1ABCDEF, 29);
  w.write_signed_run(run, 0, 5);
  w.write(0xFFFFFFFFu, 32);
  w.write(0x12345, 19);
  w.write_signed_run(run, 9, 5);
  w.write(1, 1);
  w.align_to_byte();
  w.align_to_byte();
  w.write(0, 0);
  w.write(1, 1);
  EXPECT_EQ(w.bytes().size(), 18u);
  w.write_signed_run(wide, 2, 31);
  ASSERT_EQ(w.bit_count(), 199u);
  const Bytes written = w.bytes();
  test::BitReader r{written};
  EXPECT_EQ(r.read({3, 29, 32, 19, 5, 5, 5, 5, 5, 5, 5, 5, 5, 1, 7, 1, 31, 31, 1}),
            (std::vector<std::uint32_t>{5, 0x1ABCDEF, ~0u, 0x12345, 16, 15, 31, 0, 7, 23, 3, 30, 11, 1, 0, 1,
                                        0x40000000, 0x3FFFFFFF, 0}));
  EXPECT_EQ(written.size(), 25u);

  // A refused write leaves no trace, not even in the partial last byte.
  EXPECT_EQ(test::message_of([&] { w.write(2, 1); }), "value does not fit bit width");
  EXPECT_EQ(test::message_of([&] { w.write(0, 33); }), "bit width > 32");
  EXPECT_EQ(w.bit_count(), 199u);
  EXPECT_EQ(w.take_bytes(), written);
  EXPECT_EQ(w.bit_count(), 0u);
  EXPECT_TRUE(w.bytes().empty());
}

}  // namespace
}  // namespace tavrin
