#pragma once
// Constant-bit-rate frame sizes: an exact remainder accumulator makes the
// sizes of the first k frames sum to floor(k * numerator / denominator).
#include <cstdint>

namespace tavrin {

struct CbrFrameSizer {
  std::uint64_t numerator = 0;    // bitrate * samples per frame
  std::uint64_t denominator = 0;  // 8 * sample rate
  std::uint64_t accumulator = 0;  // carried remainder
  std::uint16_t base_bytes = 0;   // numerator / denominator
  bool fractional = false;        // some frames are one byte longer
};

// "bad CBR frame sizer" for a non-positive rate or bit rate or a frame
// length that is not a non-negative multiple of 32; "frame bytes out of
// range" when the base size is outside 96..16384 (std::invalid_argument).
CbrFrameSizer make_cbr_frame_sizer(int sample_rate, int bitrate, int samples_per_frame);

// The next frame's size. std::runtime_error "fractional frame exceeds
// maximum" (state unchanged) when a long frame would exceed 16384 bytes.
std::uint16_t next_frame_bytes(CbrFrameSizer& sizer);

}  // namespace tavrin
