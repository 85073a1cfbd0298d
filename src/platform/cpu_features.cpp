#include "platform/cpu_features.h"

#if defined(_MSC_VER) && (defined(_M_X64) || defined(_M_IX86))
#include <immintrin.h>
#include <intrin.h>
#define TAVRIN_CPUID_MSVC 1
#elif (defined(__GNUC__) || defined(__clang__)) && (defined(__x86_64__) || defined(__i386__))
#include <cpuid.h>
#include <immintrin.h>
#define TAVRIN_CPUID_GNU 1
#endif

namespace tavrin {

namespace {

constexpr std::uint32_t bit(unsigned n) { return std::uint32_t{1} << n; }

#if defined(TAVRIN_CPUID_GNU)
// The one function built for XSAVE, so the rest of the program needs no
// -mxsave; the caller has already checked OSXSAVE, so it cannot fault.
__attribute__((target("xsave"))) std::uint64_t read_xcr0() { return _xgetbv(0); }
#endif

}  // namespace

CpuIdWords read_cpuid_words() {
  CpuIdWords words;
#if defined(TAVRIN_CPUID_GNU)
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (__get_cpuid(1, &a, &b, &c, &d) == 0) return words;
  words.leaf1_ecx = c;
  words.leaf1_edx = d;
  if (__get_cpuid_count(7, 0, &a, &b, &c, &d) != 0) words.leaf7_ebx = b;
  if ((words.leaf1_ecx & bit(27)) != 0) words.xcr0 = read_xcr0();
#elif defined(TAVRIN_CPUID_MSVC)
  int regs[4] = {0, 0, 0, 0};
  __cpuid(regs, 0);
  const int max_leaf = regs[0];
  if (max_leaf < 1) return words;
  __cpuid(regs, 1);
  words.leaf1_ecx = static_cast<std::uint32_t>(regs[2]);
  words.leaf1_edx = static_cast<std::uint32_t>(regs[3]);
  if (max_leaf >= 7) {
    __cpuidex(regs, 7, 0);
    words.leaf7_ebx = static_cast<std::uint32_t>(regs[1]);
  }
  if ((words.leaf1_ecx & bit(27)) != 0) words.xcr0 = _xgetbv(0);
#endif
  return words;
}

bool sse2_offered(const CpuIdWords& words) { return (words.leaf1_edx & bit(26)) != 0; }

bool avx2_offered(const CpuIdWords& words) {
  const bool osxsave_and_avx = (words.leaf1_ecx & (bit(27) | bit(28))) == (bit(27) | bit(28));
  const bool os_saves_ymm = (words.xcr0 & 0x6u) == 0x6u;
  const bool avx2 = (words.leaf7_ebx & bit(5)) != 0;
  return osxsave_and_avx && os_saves_ymm && avx2;
}

bool cpu_has_sse2() { return sse2_offered(read_cpuid_words()); }

bool cpu_has_avx2() { return avx2_offered(read_cpuid_words()); }

}  // namespace tavrin
