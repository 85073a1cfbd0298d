#pragma once
// Scale factors, step sizes and the direct (NFE) quantizer shared by every
// encoder path.
#include <cstddef>
#include <cstdint>

namespace tavrin {

struct BitWriter;

struct QuantizerChoice {
  std::uint8_t abits = 0;        // 0: silent band, no audio data
  std::uint8_t scale_index = 0;  // 0..62
  double scale = 0.0;
  double step = 0.0;
  double quantum = 0.0;  // scale * step: the value of one index unit
};

double step_size(unsigned abits);          // "invalid DTS lossy ABITS"
double scale_value(unsigned scale_index);  // "invalid DTS 6-bit scale-factor index"
QuantizerChoice choose_baseline_quantizer(const double* samples, std::size_t count, unsigned low, unsigned high);
// choose_baseline_quantizer for samples whose largest magnitude is `peak`
// (NaN samples count as 0), for callers that already know it.
QuantizerChoice baseline_quantizer_for_peak(double peak, unsigned low, unsigned high);
inline std::int32_t quantize(double x, const QuantizerChoice& choice);
double dequantize(std::int32_t index, const QuantizerChoice& choice);
unsigned nfe_width(unsigned abits);
void write_nfe(BitWriter& writer, std::int32_t index, unsigned abits);
void write_dsync(BitWriter& writer);

[[noreturn]] void throw_quantizer_abits();

// Inline because the allocator calls it for every sample of every step it
// weighs. Round half to even on x / quantum, clamped to the index range, a
// NaN sample coding as 0.
inline std::int32_t quantize(double x, const QuantizerChoice& choice) {
  const unsigned a = choice.abits;
  if (a == 0) return 0;
  if (a < 8 || a > 26) throw_quantizer_abits();
  const double r = x / choice.quantum;
  if (r != r) return 0;
  const auto half = static_cast<double>(std::int32_t{1} << (a - 4));
  // Clamping to integer bounds before rounding gives what rounding first
  // would, and keeps the value small enough for the 1.5 * 2^52 shift: the
  // sum has no fraction bits left, so the FPU's round-to-nearest-even mode
  // (which the program never changes) does the rounding without a libm call.
  const double clamped = r < -half ? -half : (r > half - 1.0 ? half - 1.0 : r);
  constexpr double kShift = 0x1.8p52;
  return static_cast<std::int32_t>((clamped + kShift) - kShift);
}

}  // namespace tavrin
