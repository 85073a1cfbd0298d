#include "platform/cpu_features.h"

#include <gtest/gtest.h>

namespace tavrin {
namespace {

TEST(CpuFeatures, FeatureBitsAreInterpretedAsDocumented) {
  constexpr std::uint32_t osxsave = 1u << 27, avx = 1u << 28, sse2 = 1u << 26, avx2 = 1u << 5;
  const struct {
    CpuIdWords words;
    bool sse2, avx2;
  } cases[] = {
      {{osxsave | avx, sse2, avx2, 0x6}, true, true},    // the x87 state bit is not needed
      {{osxsave | avx, ~sse2, avx2, 0x6}, false, true},  // only the SSE2 bit counts
      {{avx, sse2, avx2, 0x7}, true, false},             // OS does not use XSAVE
      {{osxsave, sse2, avx2, 0x7}, true, false},         // no AVX
      {{osxsave | avx, sse2, avx2, 0x3}, true, false},   // YMM state not enabled
      {{osxsave | avx, sse2, avx2, 0x5}, true, false},   // XMM state not enabled
      {{osxsave | avx, sse2, ~avx2, 0x7}, true, false},  // every leaf-7 bit but AVX2
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(sse2_offered(cases[i].words), cases[i].sse2) << i;
    EXPECT_EQ(avx2_offered(cases[i].words), cases[i].avx2) << i;
  }
}

// x86-64 always has SSE2, and XGETBV must not run without OSXSAVE.
TEST(CpuFeatures, ReadsTheRunningProcessor) {
  const CpuIdWords words = read_cpuid_words();
#if defined(__x86_64__) || defined(_M_X64)
  EXPECT_TRUE(cpu_has_sse2());
#endif
  EXPECT_TRUE((words.leaf1_ecx & (1u << 27)) != 0 || words.xcr0 == 0);
}

}  // namespace
}  // namespace tavrin
