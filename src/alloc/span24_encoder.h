#pragma once
// The 24+8 rate-aware stereo encoder. A frame is two subframes: the first
// carries 24 samples per band (three subsubframes), so that a band whose
// level jumps inside it can take a transient mode and a second scale factor,
// the second carries the last 8 with scale factors of their own. A frame
// whose subsubframes differ sharply in what is at stake (a click over
// silence, the first frame after a drum hit) is also allocated as four
// subframes of 8, and is sent that way when that measures better. Every
// ABITS the format has is used (1..7 as block codes), and the frame's bits
// go, step by step, wherever they lower the chosen error measure most per
// bit, until the constant frame size is exactly filled.
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "alloc/frame_record.h"
#include "alloc/prediction_stage.h"
#include "alloc/psycho.h"
#include "alloc/span24_mask.h"
#include "dsp/adpcm.h"
#include "bitstream/frame.h"

namespace tavrin {

enum class Span24Objective : std::uint8_t {
  weighted_error,  // squared error weighted by the psychoacoustic model, as the legacy path measures it
  log_error,       // error in decibels: every band's signal-to-noise ratio counts alike
  noise_to_mask,   // noise power over the masking threshold, per critical band and subsubframe
  // The weighted error plus the noise-to-mask measure at a tenth of its
  // stake: the weights alone price noise in a quiet band (between clicks,
  // around an attack) by the band's own level, the masks by what hides it.
  weighted_and_mask,
};

struct Span24Settings {
  Span24Objective objective = Span24Objective::weighted_error;
  bool transient_modes = true;
  // How many ABITS a band may rise in one step: beyond 1, a step of several
  // is taken where one alone buys little (from silence to the first block
  // code, say) but more buy a lot.
  unsigned jump_reach = 1;
};

// What --production-candidate runs, and mode "candidate".
Span24Settings production_span24_settings();

// The settings of an --experimental-span24 mode word with the scale and
// transient flag the option parser derived from it.
Span24Settings span24_settings(const std::string& mode, std::uint8_t scale, bool transient_mode);

// Fixed for the whole stream.
struct Span24Config {
  Span24Settings settings = production_span24_settings();
  PsychoConfig psycho = stereo_psycho_config();
  std::uint32_t reserved_bits = 64;  // never spent, as the legacy path keeps them
  // The legacy path's predictor design (TAVRIN_DTS_ADPCM=0 switches both off).
  PredictionConfig prediction = prediction_config_from_environment();
};

struct Span24State {
  PsychoTemporalState psycho;
  // Made on the stream's first frame, when its rate is known.
  std::optional<Span24MaskTables> mask_tables;
  // What every decoder holds of each band (channel * 32 + band): its last
  // four reconstructed samples, valid once a frame has been made.
  std::array<AdpcmHistory, 64> history{};
  bool history_valid = false;
  // Each band's last predictor neighbourhood, searched anew every few
  // frames and reused in between, as the legacy path does.
  std::array<AdpcmDecisionCache, 64> decisions{};
  AdpcmShortlistWork scan;
  std::uint64_t frames = 0;
};

struct Span24Frame {
  CoreFrame frame;
  std::uint64_t predictions = 0;      // bands coded with prediction
  std::uint64_t reinvested_bits = 0;  // bits prediction saved and the allocation spent again
};

// channels: two blocks of 1024 subband samples (sample t of band b at
// t * 32 + b). "AMODE primary-channel count mismatch" unless AMODE names
// two channels; "frame too small for span24 DTS Core frame" when the frame
// cannot hold the side information.
Span24Frame encode_span24_frame(const std::vector<const double*>& channels, std::uint8_t amode,
                                const StreamParams& stream, std::uint32_t frame_bytes, const Span24Config& config,
                                Span24State& state);

}  // namespace tavrin
