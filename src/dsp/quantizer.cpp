#include "dsp/quantizer.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "bitstream/bit_writer.h"
#include "bitstream/subframe.h"
#include "dsp/qmf_kernel.h"
#include "dsp/quant_tables.h"

namespace tavrin {

namespace {

constexpr unsigned kMinDirectAbits = 8;
constexpr unsigned kMaxDirectAbits = 26;

bool direct_abits(unsigned abits) { return abits >= kMinDirectAbits && abits <= kMaxDirectAbits; }

// Signed range of an (abits - 3)-bit two's-complement index.
std::int64_t index_min(unsigned abits) { return -(std::int64_t{1} << (abits - 4)); }
std::int64_t index_max(unsigned abits) { return (std::int64_t{1} << (abits - 4)) - 1; }

}  // namespace

void throw_step_size_abits() { throw std::invalid_argument("invalid DTS lossy ABITS"); }

double scale_value(unsigned scale_index) {
  if (scale_index >= kScaleFactor6Count) throw std::invalid_argument("invalid DTS 6-bit scale-factor index");
  return kScaleFactor6[scale_index];
}

void throw_baseline_range() { throw std::invalid_argument("baseline ABITS range must be within 8..26"); }

void throw_baseline_peak() { throw std::invalid_argument("DTS baseline quantizer cannot represent subband peak"); }

QuantizerChoice choose_baseline_quantizer(const double* samples, std::size_t count, unsigned low, unsigned high) {
  if (samples == nullptr && count != 0) throw std::invalid_argument("null samples");
  if (low < kMinDirectAbits || high > kMaxDirectAbits || low > high)
    throw std::invalid_argument("baseline ABITS range must be within 8..26");
  double peak = 0.0;
  for (std::size_t i = 0; i < count; ++i) {
    const double m = std::fabs(samples[i]);
    peak = m > peak ? m : peak;  // a NaN sample leaves the peak alone
  }
  return baseline_quantizer_for_peak(peak, low, high);
}

void throw_quantizer_abits() { throw std::invalid_argument("direct NFE quantizer requires ABITS 8..26"); }

double dequantize(std::int32_t index, const QuantizerChoice& choice) {
  if (choice.abits == 0) return 0.0;
  if (!direct_abits(choice.abits)) throw std::invalid_argument("direct NFE quantizer requires ABITS 8..26");
  if (index < index_min(choice.abits) || index > index_max(choice.abits))
    throw std::invalid_argument("quantization index outside DTS NFE range");
  return static_cast<double>(index) * choice.quantum;
}

unsigned nfe_width(unsigned abits) {
  if (!direct_abits(abits)) throw std::invalid_argument("NFE direct coding requires ABITS 8..26");
  return abits - 3;
}

// The field writers live with the subframe coder, which must not depend on
// this library; these are the quantizer's names for them.
void write_nfe(BitWriter& writer, std::int32_t index, unsigned abits) { write_nfe_sample(writer, index, abits); }

void write_dsync(BitWriter& writer) { write_subframe_sync(writer); }

}  // namespace tavrin

namespace tavrin {

// The reference form: one sample at a time, dividing.
double quantization_error8_scalar(const double* x, double quantum, double, unsigned abits) {
  double sum = 0.0;
  for (std::size_t k = 0; k < 8; ++k) {
    const double e = x[k] - quantized_units(x[k], quantum, abits) * quantum;
    sum += e * e;
  }
  return sum;
}

// Two samples at a time where the build has SSE2 (quantized_units_n).
double quantization_error8_sse2(const double* x, double quantum, double, unsigned abits) {
  QuantizerChoice choice;
  choice.abits = static_cast<std::uint8_t>(abits);
  choice.quantum = quantum;
  return quantization_error<8>(x, choice);
}

}  // namespace tavrin
