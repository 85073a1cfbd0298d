#pragma once
// From an allocation plan to the frame payload the writers emit.
#include <vector>

#include "alloc/allocation.h"
#include "bitstream/subframe.h"

namespace tavrin {

// The fixed coding choices of the plan-driven encoders for `channels` primary
// channels: four subframes, all 32 subbands, linear 5-bit ABITS and 6-bit
// scale codes, every quantizer selector at its linear book.
PrimaryHeader legacy_primary_header(unsigned channels);

// Turns an allocation plan into the four subframes of direct-coded audio.
// channels: one block of 1024 subband samples each (subframe s, sample k,
// band b at s * 256 + k * 32 + b).
FramePayload payload_from_plan(const std::vector<const double*>& channels, const AllocationPlan& plan);

}  // namespace tavrin
