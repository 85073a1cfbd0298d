#pragma once
// The default stereo frame encoder ("legacy ADPCM rate"): psychoacoustic
// model, adaptive allocation of the payload budget, ADPCM rate allocation,
// exact constant-size frame.
#include <cstdint>
#include <vector>

#include "alloc/adpcm_rate.h"
#include "alloc/allocation.h"
#include "alloc/frame_record.h"
#include "alloc/psycho.h"
#include "alloc/span24_encoder.h"
#include "bitstream/frame.h"

namespace tavrin {

// The stereo allocation defaults with the bands weighed by the model, which
// this encoder always supplies.
AllocationConfig legacy_allocation_config();

// The encoder's configuration record: allocation first, then the model.
// Fixed for the whole stream.
struct LegacyEncoderConfig {
  AllocationConfig allocation = legacy_allocation_config();
  PsychoConfig psycho = stereo_psycho_config();
  PredictionConfig prediction = prediction_config_from_environment();
};

// Per-stream state; frames must be encoded strictly in order.
struct LegacyEncoderState {
  PsychoTemporalState psycho;
  AdpcmStreamState adpcm;
};

// channels: one block of 1024 subband samples per primary channel.
CoreFrame encode_legacy_frame(const std::vector<const double*>& channels, std::uint8_t amode,
                              const StreamParams& stream, std::uint32_t frame_bytes, const LegacyEncoderConfig& config,
                              LegacyEncoderState& state);

enum class FrameEncoderKind { legacy_adpcm, span24 };

struct DispatchedFrame {
  CoreFrame frame;
  FrameEncoderKind kind = FrameEncoderKind::legacy_adpcm;
  std::uint64_t span24_predictions = 0;
  std::uint64_t span24_reinvested_bits = 0;
};

// Chooses the encoder for one stereo frame: the span24 encoder (with the
// production settings of `span24_config`) only for a production-candidate
// stream it can serve, the legacy encoder otherwise.
DispatchedFrame dispatch_stereo_frame(const std::vector<const double*>& channels, std::uint8_t amode,
                                      const StreamParams& stream, std::uint32_t frame_bytes,
                                      const LegacyEncoderConfig& config, LegacyEncoderState& state,
                                      const Span24Config& span24_config, Span24State& span24_state,
                                      bool production_candidate);

}  // namespace tavrin
