#include "platform/cpu_features.h"

#include <gtest/gtest.h>

#include <tuple>

namespace tavrin {
namespace {

TEST(CpuFeatures, SimdIsOfferedOnlyWhenCpuAndOsAgree) {
  constexpr std::uint32_t osxsave = 1u << 27, avx = 1u << 28, sse2 = 1u << 26, avx2 = 1u << 5;
  const std::tuple<CpuIdWords, bool, bool> cases[] = {
      {{osxsave | avx, sse2, avx2, 0x6}, true, true},    // the x87 state bit is not needed
      {{osxsave | avx, ~sse2, avx2, 0x6}, false, true},  // only the SSE2 bit counts
      {{avx, sse2, avx2, 0x7}, true, false},             // OS does not use XSAVE
      {{osxsave, sse2, avx2, 0x7}, true, false},         // no AVX
      {{osxsave | avx, sse2, avx2, 0x3}, true, false},   // YMM state not enabled
      {{osxsave | avx, sse2, avx2, 0x5}, true, false},   // XMM state not enabled
      {{osxsave | avx, sse2, ~avx2, 0x7}, true, false},  // every leaf-7 bit but AVX2
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& [words, has_sse2, has_avx2] = cases[i];
    EXPECT_EQ(std::pair(sse2_offered(words), avx2_offered(words)), std::pair(has_sse2, has_avx2)) << i;
  }
#if defined(__x86_64__) || defined(_M_X64)
  EXPECT_TRUE(cpu_has_sse2());  // every x86-64 has it, so the CPUID read is wrong if not
#endif
}

}  // namespace
}  // namespace tavrin
