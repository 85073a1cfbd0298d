#pragma once
// The ADPCM rate allocator: the last word on how a frame's payload budget is
// spent before the frame is written. It repairs what the one-step greedy
// allocation cannot see, and it is the place where forward-adaptive
// prediction replaces direct coding in subbands where that saves bits.
#include <cstdint>
#include <vector>

#include "alloc/allocation.h"
#include "alloc/prediction_stage.h"
#include "bitstream/subframe.h"

namespace tavrin {

// What the decoder will have as predictor history, carried from frame to
// frame. `history_available` is false until a frame has been made, and a
// pending reset forces the next frame to start without history (HFLAG 0).
struct AdpcmStreamState {
  bool history_available = false;
  bool reset_pending = false;
  PredictionHistory prediction;  // each subband's last reconstructed samples, as decoders hold them
};

struct AdpcmRateResult {
  std::uint64_t payload_bits = 0;  // the finished payload's size, as accounted
  std::uint32_t exchanges = 0;     // bit moves made by the refinement
  std::uint32_t predicted_subbands = 0;
  std::uint32_t reinvested_bits = 0;
};

// Improves `plan` in place without exceeding `budget_bits`: with 8 samples
// per band the measured error does not always fall with every ABITS step, so
// the greedy search can leave a strong band stuck behind a step that buys
// nothing. This looks a few steps ahead and moves bits from the bands where
// they buy least to where they buy most, as long as the weighted error falls.
// Returns the number of moves made.
std::uint32_t refine_allocation(const std::vector<const double*>& channels, AllocationPlan& plan,
                                std::uint64_t budget_bits, const AllocationConfig& config);

// channels: one block of 1024 subband samples each (subframe s, sample k,
// band b at s * 256 + k * 32 + b). Refines `plan`, makes `payload` from it
// and lets the prediction stage revise it, all within `budget_bits`.
// `use_history` is the frame's HFLAG.
AdpcmRateResult allocate_adpcm_rates(const std::vector<const double*>& channels, AllocationPlan& plan,
                                     FramePayload& payload, std::uint64_t budget_bits,
                                     const AllocationConfig& config, const PredictionConfig& prediction,
                                     bool use_history, AdpcmStreamState& state);

}  // namespace tavrin
