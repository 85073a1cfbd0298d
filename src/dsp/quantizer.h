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
std::int32_t quantize(double x, const QuantizerChoice& choice);
double dequantize(std::int32_t index, const QuantizerChoice& choice);
unsigned nfe_width(unsigned abits);
void write_nfe(BitWriter& writer, std::int32_t index, unsigned abits);
void write_dsync(BitWriter& writer);

}  // namespace tavrin
