#include "platform/cpu_features.h"

#include <gtest/gtest.h>

#include <vector>

namespace tavrin {
namespace {

TEST(CpuFeatures, FeatureBitsAreInterpretedAsDocumented) {
  constexpr std::uint32_t osxsave = 1u << 27, avx = 1u << 28, sse2 = 1u << 26, avx2 = 1u << 5;
  struct Case {
    CpuIdWords words;
    bool sse2;
    bool avx2;
  };
  const std::vector<Case> cases = {
      {{0, 0, 0, 0}, false, false},
      {{0, sse2, 0, 0}, true, false},
      {{osxsave | avx, sse2, avx2, 0x7}, true, true},
      {{osxsave | avx, sse2, avx2, 0x6}, true, true},
      {{osxsave | avx, 0, avx2, 0x6}, false, true},
      {{avx, sse2, avx2, 0x7}, true, false},             // OS does not use XSAVE
      {{osxsave, sse2, avx2, 0x7}, true, false},         // no AVX
      {{osxsave | avx, sse2, avx2, 0x3}, true, false},   // YMM state not enabled
      {{osxsave | avx, sse2, avx2, 0x5}, true, false},   // XMM state not enabled
      {{osxsave | avx, sse2, 0, 0x7}, true, false},      // AVX without AVX2
      {{osxsave | avx, sse2, ~avx2, 0x7}, true, false},  // every other leaf-7 bit
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(sse2_offered(cases[i].words), cases[i].sse2) << i;
    EXPECT_EQ(avx2_offered(cases[i].words), cases[i].avx2) << i;
  }
}

TEST(CpuFeatures, LiveAnswersAgreeWithTheRawWords) {
  const CpuIdWords words = read_cpuid_words();
  EXPECT_EQ(cpu_has_sse2(), sse2_offered(words));
  EXPECT_EQ(cpu_has_avx2(), avx2_offered(words));
#if defined(__x86_64__) || defined(_M_X64)
  EXPECT_TRUE(cpu_has_sse2());  // part of the 64-bit baseline
#endif
  if ((words.leaf1_ecx & (1u << 27)) == 0) {
    EXPECT_EQ(words.xcr0, 0u);
  }
}

}  // namespace
}  // namespace tavrin
