#include "bitstream/cbr_sizer.h"

#include <stdexcept>

namespace tavrin {

CbrFrameSizer make_cbr_frame_sizer(int sample_rate, int bitrate, int samples_per_frame) {
  if (sample_rate <= 0 || bitrate <= 0 || samples_per_frame < 0 || samples_per_frame % 32 != 0)
    throw std::invalid_argument("bad CBR frame sizer");
  CbrFrameSizer s;
  s.numerator = static_cast<std::uint64_t>(bitrate) * static_cast<std::uint64_t>(samples_per_frame);
  s.denominator = static_cast<std::uint64_t>(sample_rate) * 8u;
  const std::uint64_t base = s.numerator / s.denominator;
  if (base < 96 || base > 16384) throw std::invalid_argument("frame bytes out of range");
  s.base_bytes = static_cast<std::uint16_t>(base);
  s.fractional = s.numerator % s.denominator != 0;
  return s;
}

std::uint16_t next_frame_bytes(CbrFrameSizer& s) {
  // A sizer that never went through make_cbr_frame_sizer has no rate.
  if (s.denominator == 0) throw std::invalid_argument("bad CBR frame sizer");
  const std::uint64_t acc = s.accumulator + s.numerator % s.denominator;
  if (acc < s.denominator) {
    s.accumulator = acc;
    return s.base_bytes;
  }
  if (s.base_bytes >= 16384) throw std::runtime_error("fractional frame exceeds maximum");
  s.accumulator = acc - s.denominator;
  return static_cast<std::uint16_t>(s.base_bytes + 1u);
}

}  // namespace tavrin
