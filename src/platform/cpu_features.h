#pragma once
// Processor feature tests for choosing SIMD kernels at run time. The raw
// CPUID/XGETBV words are kept separate from their interpretation so that the
// interpretation can be checked without the matching hardware.
#include <cstdint>

namespace tavrin {

struct CpuIdWords {
  std::uint32_t leaf1_ecx = 0;
  std::uint32_t leaf1_edx = 0;
  std::uint32_t leaf7_ebx = 0;  // 0 when leaf 7 does not exist
  std::uint64_t xcr0 = 0;       // 0 unless OSXSAVE is reported
};

// Reads the words from the running processor (all zero on non-x86 builds).
CpuIdWords read_cpuid_words();

bool sse2_offered(const CpuIdWords& words);
bool avx2_offered(const CpuIdWords& words);

bool cpu_has_sse2();
bool cpu_has_avx2();

}  // namespace tavrin
