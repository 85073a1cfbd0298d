// The compiled-in tables are the standard's, whole: a checksum over every
// value as the program holds it (FNV-1a over 64-bit words: a double's bits,
// or an integer widened), with the length and the check values the
// standard quotes. scripts/generate-tables writes them.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstdlib>

#include "bitstream/lfe_scale_table.h"
#include "dsp/adpcm_vq_table.h"
#include "dsp/qmf_prototype.h"
#include "dsp/quant_tables.h"

namespace tavrin {
namespace {

struct Fnv {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  void add(std::uint64_t word) {
    for (int i = 0; i < 8; ++i) {
      hash ^= (word >> (8 * i)) & 0xFFu;
      hash *= 0x100000001b3ull;
    }
  }
  template <typename Range>
  std::uint64_t doubles(const Range& values, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) add(std::bit_cast<std::uint64_t>(static_cast<double>(values[i])));
    return hash;
  }
};

TEST(Tables, ChecksumsOfTheStandardsValues) {
  EXPECT_EQ(Fnv{}.doubles(qmf_perfect_prototype(), 512), 0x76747f17bbcdb3f1ull);
  EXPECT_EQ(Fnv{}.doubles(kScaleFactor6, kScaleFactor6Count), 0x7f59de0600e4712aull);
  EXPECT_EQ(Fnv{}.doubles(kLfeScale, kLfeScaleCount), 0x066a8d080ba266c4ull);
  EXPECT_EQ(Fnv{}.doubles(kStepSize, kStepSizeCount), 0xa8471fdb7d21b5abull);
  Fnv vq;
  int largest = 0;
  for (const auto& entry : kAdpcmVq)
    for (const std::int16_t c : entry) {
      vq.add(static_cast<std::uint64_t>(static_cast<std::int64_t>(c)));
      largest = std::max(largest, std::abs(int{c}));
    }
  EXPECT_EQ(vq.hash, 0x15de84fc39e21b14ull);
  EXPECT_EQ(kAdpcmVq.size(), 4096u);
  EXPECT_EQ(kAdpcmVq[0], (std::array<std::int16_t, 4>{9928, -2618, -1093, -1263}));
  EXPECT_EQ(kAdpcmVq[1], (std::array<std::int16_t, 4>{11077, -2876, -1747, -308}));
  EXPECT_EQ(largest, 21806);
}

}  // namespace
}  // namespace tavrin
