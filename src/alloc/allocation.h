#pragma once
// Adaptive bit allocation: a greedy marginal-return search that raises band
// ABITS one step at a time, always buying the most perceptually weighted
// distortion reduction per bit, until the frame's payload budget is spent.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "alloc/plan_payload.h"
#include "alloc/psycho.h"
#include "dsp/quantizer.h"

namespace tavrin {

// Member defaults are the stereo defaults of the rate-optimized ADPCM
// encoder, which sets psycho_weighting to 1 before every frame.
struct AllocationConfig {
  std::uint8_t abits_min = 8;            // >= 8
  std::uint8_t abits_max = 26;           // <= 26 and >= abits_min
  std::uint32_t reserved_bits = 64;      // kept out of the payload by the frame encoder
  double relative_silence_floor = 1e-6;  // [0, 1)
  double high_band_weight = 0.65;        // (0, 1]; ramp target without psycho weighting
  double channel_fairness = 0.0;         // [0, 2]; 0 switches fairness off
  std::uint32_t psycho_weighting = 0;    // 1: weight bands by the psychoacoustic model
  PsychoConfig psycho{};
};

AllocationConfig stereo_allocation_config();

struct AllocationBand {
  std::uint8_t abits = 0;  // 0: band not transmitted
  QuantizerChoice quantizer{};
  double rms = 0.0;
  double peak = 0.0;
  double distortion = 0.0;  // MSE as quantized now; the energy while ABITS is 0
  double weight = 0.0;
};

struct AllocationPlan {
  // [subframe 0..3][channel][band 0..31]
  std::vector<std::vector<std::vector<AllocationBand>>> subframes;
  std::uint64_t total_bits = 0;  // side information plus payload spent so far
  std::uint32_t psycho_weighting = 0;
  double perceptual_error = 0.0;
};

inline constexpr std::size_t kAllocationSubframes = 4;
inline constexpr std::size_t kAllocationBands = 32;

// Bits of one band's audio data plus its scale factor at ABITS a (0 for a
// silent band), as the payload writer counts them.
inline std::uint64_t band_bit_cost(unsigned abits) { return payload_costs().band_bits[abits]; }

// Side information plus the payload of every coded band, counted from
// scratch. Throws std::runtime_error "allocation subframe count mismatch",
// "allocation channel count mismatch" or "allocation band count mismatch"
// when the plan is not 4 x channels x 32.
std::uint64_t count_allocation_bits(const AllocationPlan& plan, std::size_t channels);

// Sum of perceptual weight times final distortion over every band. Throws
// std::runtime_error "psycho/MSE subframe mismatch", "psycho/MSE channel
// mismatch" or "psycho/MSE band mismatch" when the shapes disagree.
double perceptual_error(const PsychoAnalysis& analysis, const AllocationPlan& plan);

// channels: one block of 1024 subband samples each (subframe s, sample k,
// band b at s * 256 + k * 32 + b). psycho_override may be null.
// The full scan is used when config.channel_fairness > 0 or the environment
// variable TAVRIN_DTS_ALLOCATOR_SCAN begins with "1"; otherwise the
// tournament search (the same order as a max-heap of gains).
AllocationPlan allocate(const std::vector<const double*>& channels, std::uint64_t budget_bits,
                        const AllocationConfig& config, const PsychoAnalysis* psycho_override);

// As allocate(), with the search strategy's environment switch given
// explicitly (fairness > 0 still forces the full scan).
AllocationPlan allocate_with_scan(const std::vector<const double*>& channels, std::uint64_t budget_bits,
                                  const AllocationConfig& config, const PsychoAnalysis* psycho_override,
                                  bool scan_switch);

}  // namespace tavrin
