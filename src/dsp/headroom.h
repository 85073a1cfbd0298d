#pragma once
// Headroom: decoders clip every reconstructed subband sample to 24 bits, and
// near-full-scale input with strong low and mid harmonics (a square wave
// at -0.3 dBFS reaches 1.4 times that range in its lowest band) has
// subband samples no stream can carry. Coding them as they are would let
// every decoder clip them: broadband distortion at 20 dB SNR. Instead the
// level of the frames that need it is lowered just enough, with a
// look-ahead ramp inside the frame and a slow recovery, like a limiter:
// quieter for a moment, never distorted. Input that fits is not touched.
#include <cstdint>
#include <vector>

#include "dsp/qmf.h"

namespace tavrin {

// The largest subband magnitude a frame may carry after the gain: the
// decoders' 24-bit range, less a little room for the quantizer's rounding.
inline constexpr double kHeadroomLimit = 8388607.0 * 0.998;

struct HeadroomState {
  double gain = 1.0;              // gain at the end of the last frame
  unsigned hold = 0;              // slots before the gain may recover
  std::uint64_t frames_lowered = 0;
  double least_gain = 1.0;
};

// Scales the frame's subband samples (every primary channel alike, slot by
// slot) so that none exceeds kHeadroomLimit, and the LFE's 1024 input
// samples (when given) by the same gain over the same slots. Returns
// whether the frame was lowered at all.
bool apply_headroom(HeadroomState& state, std::vector<SubbandBlock>& channels, double* lfe);

}  // namespace tavrin
