#pragma once
// A wider form of the allocator's error sum, for processors with AVX2. Kept
// apart from quantizer.h so that nothing shared is compiled for AVX2.
#include <cstdint>

namespace tavrin {

// quantization_error<8>(x, choice) for choice.abits 8..26 with
// choice.quantum == quantum: the same result, four samples at a time. Only
// to be called when the processor offers AVX2.
double quantization_error8_avx2(const double* x, double quantum, unsigned abits);

}  // namespace tavrin
