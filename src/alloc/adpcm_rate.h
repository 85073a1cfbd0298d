#pragma once
// The ADPCM rate allocator: the place where forward-adaptive prediction
// replaces direct coding in subbands where that saves bits.
#include <cstdint>
#include <vector>

#include "bitstream/subframe.h"

namespace tavrin {

// What the decoder will have as predictor history, carried from frame to
// frame. `history_available` is false until a frame has been made, and a
// pending reset forces the next frame to start without history (HFLAG 0).
struct AdpcmStreamState {
  bool history_available = false;
  bool reset_pending = false;
};

struct AdpcmRateResult {
  std::uint64_t payload_bits = 0;  // the finished payload's size, as accounted
  std::uint32_t predicted_subbands = 0;
};

// channels: one block of 1024 subband samples each (subframe s, sample k,
// band b at s * 256 + k * 32 + b). `payload` holds the direct coding chosen
// by the adaptive allocator and costs `allocated_bits`; the allocator may
// switch subbands to prediction and change their ABITS as long as the payload
// stays within `budget_bits`.
AdpcmRateResult allocate_adpcm_rates(const std::vector<const double*>& channels, FramePayload& payload,
                                     std::uint64_t allocated_bits, std::uint64_t budget_bits,
                                     AdpcmStreamState& state);

}  // namespace tavrin
