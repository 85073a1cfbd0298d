#pragma once
// The prediction stage of the ADPCM rate allocator: subbands switch from
// direct coding to forward-adaptive prediction where that codes the same
// error in fewer bits, and the bits saved are spent again where they buy the
// most weighted error. Everything is computed in closed loop against what a
// decoder reconstructs, sample by sample, in its integer domain.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "alloc/allocation.h"
#include "bitstream/subframe.h"
#include "dsp/adpcm.h"

namespace tavrin {

// Fixed for the whole stream. The values were tuned on generated tonal
// and noisy material at 768 kbit/s (see README): below a 10 dB gain a
// predictor never saved bits; the ridge keeps 8-sample designs from
// fitting noise; a 12-entry shortlist loses up to 0.2 dB on harmonic tones
// and a longer one than 16 no longer pays for its time; a band's
// neighbourhood of the table is searched anew every fourth subframe (or
// when its predictor left it), and reused in between.
struct PredictionConfig {
  bool enabled = true;
  PredictorConfig predictor{4, 10.0, 1e-3};
  std::size_t shortlist = 16;
  std::uint64_t rescan_every = 4;
};

// Reads TAVRIN_DTS_ADPCM: a value beginning with "0" switches prediction off
// (for comparisons); anything else, or nothing, leaves it on.
PredictionConfig prediction_config_from_environment();

// What the stage remembers of a band's decisions.
struct BandDecisions {
  AdpcmDecisionCache cache;     // its shortlist, kept while it holds
  std::uint64_t rest_until = 0;  // no decision before this subframe
  std::uint8_t failures = 0;     // unpredictable decisions in a row
};

// The stream state: for each (channel, band) what every decoder holds, the
// last four reconstructed samples, carried across subframes and frames; and
// the decisions' memory.
struct PredictionHistory {
  std::vector<AdpcmHistory> bands;        // channel * 32 + band
  std::vector<BandDecisions> decisions;
  AdpcmShortlistWork scan;
  std::uint64_t subframes = 0;  // made so far
};

struct PredictionResult {
  std::int64_t bit_change = 0;      // payload bits after the stage minus before
  std::uint32_t predicted = 0;      // (subframe, channel, band) entries coded with PMODE 1
  std::uint32_t reinvested_bits = 0;
};

// Revises `payload` (made from `plan`, direct coding) subframe by subframe.
// `free_bits` is what the frame's budget leaves beyond the payload now; the
// stage never spends more. `use_history` is the frame's HFLAG: without it
// the decoders start from silence, and they do not agree on how prediction
// continues inside such a frame, so none is used there. The history is
// brought up to this frame's end either way.
PredictionResult run_prediction_stage(const std::vector<const double*>& channels, const AllocationPlan& plan,
                                      FramePayload& payload, std::uint64_t free_bits, bool use_history,
                                      const PredictionConfig& config, PredictionHistory& history);

}  // namespace tavrin
