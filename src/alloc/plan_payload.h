#pragma once
// From an allocation plan to the frame payload the writers emit.
#include <array>
#include <cstdint>
#include <vector>

#include "bitstream/subframe.h"

namespace tavrin {

struct AllocationPlan;

inline constexpr unsigned kMaxPlanChannels = 5;
inline constexpr unsigned kMaxPlanAbits = 26;

// What the payloads of the plan-driven encoders cost, as the payload writer
// counts them. Measured once, by counting blank and one-band payloads
// through the writer's own bit counter, so that the allocators price their
// steps by the very rules the frames are written with.
struct PayloadCosts {
  // By primary channel count 1..5: the primary header and four subframes
  // with every band silent, without LFE.
  std::array<std::uint64_t, kMaxPlanChannels + 1> side_bits{};
  // One band's scale index and eight samples at ABITS a; 0 for a silent
  // band (ABITS 1..7 are never used by these encoders and also hold 0).
  std::array<std::uint32_t, kMaxPlanAbits + 1> band_bits{};
  // What a band's prediction adds: its coefficient index (PVQ).
  std::uint32_t pvq_bits = 0;
};

const PayloadCosts& payload_costs();

// The fixed coding choices of the plan-driven encoders for `channels` primary
// channels: four subframes, all 32 subbands, linear 5-bit ABITS and 6-bit
// scale codes, every quantizer selector at its linear book.
PrimaryHeader legacy_primary_header(unsigned channels);

// Turns an allocation plan into the four subframes of direct-coded audio.
// channels: one block of 1024 subband samples each (subframe s, sample k,
// band b at s * 256 + k * 32 + b).
FramePayload payload_from_plan(const std::vector<const double*>& channels, const AllocationPlan& plan);

}  // namespace tavrin
