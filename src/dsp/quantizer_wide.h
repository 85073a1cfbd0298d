#pragma once
// A wider form of the allocator's error sum, for processors with AVX2. Kept
// apart from quantizer.h so that nothing shared is compiled for AVX2.
#include <cstdint>

namespace tavrin {

// quantization_error<8>(x, choice) for choice.abits 8..26 with
// choice.quantum == quantum: the same result, four samples at a time. Only
// to be called when the processor offers AVX2. `inverse_quantum` need only
// be within a few units in the last place of 1 / quantum (the rounding falls
// back to the quotient wherever that could matter), so callers may form it
// from tabled reciprocals instead of dividing.
double quantization_error8_avx2(const double* x, double quantum, double inverse_quantum, unsigned abits);

}  // namespace tavrin
