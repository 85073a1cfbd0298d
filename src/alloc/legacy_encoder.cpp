#include "alloc/legacy_encoder.h"

#include <stdexcept>

#include "bitstream/bit_writer.h"
#include "bitstream/frame_header.h"

namespace tavrin {

AllocationConfig legacy_allocation_config() {
  AllocationConfig config = stereo_allocation_config();
  config.psycho_weighting = 1;
  return config;
}

CoreFrame encode_legacy_frame(const std::vector<const double*>& channels, std::uint8_t amode,
                              const StreamParams& stream, std::uint32_t frame_bytes, const LegacyEncoderConfig& config,
                              LegacyEncoderState& state) {
  if (channels_for_amode(amode) != channels.size()) {
    throw std::invalid_argument("AMODE primary-channel count mismatch");
  }
  CoreFrame frame;
  CoreFrameHeader& header = frame.header;
  set_encoder_header(header, amode, stream.sample_rate, stream.bitrate, frame_bytes);
  header.hflag = (state.adpcm.history_available && !state.adpcm.reset_pending) ? 1 : 0;

  // The frame is written into this writer as it goes: the header now, for
  // its size, and the payload once it is decided.
  BitWriter writer(frame_bytes);
  write_header(writer, header);
  const std::uint64_t header_bits = writer.bit_count();
  const std::uint64_t budget = static_cast<std::uint64_t>(frame_bytes & 0xFFFFu) * 8;
  const std::uint64_t reserved = config.allocation.reserved_bits;
  if (budget <= header_bits + reserved) {
    throw std::invalid_argument("frame too small for rate-optimized ADPCM DTS Core header");
  }
  const std::uint64_t payload_budget = budget - header_bits - reserved;

  const PsychoAnalysis psycho = analyse_psycho(channels, &state.psycho, config.psycho);
  AllocationPlan plan = allocate(channels, payload_budget, config.allocation, &psycho);

  const AdpcmRateResult rate = allocate_adpcm_rates(channels, plan, frame.payload, payload_budget, config.allocation,
                                                    config.prediction, header.hflag != 0, state.adpcm);
  // Writing the payload counts it, with the checks a count would make.
  write_payload(writer, frame.payload);
  if (writer.bit_count() - header_bits != rate.payload_bits) {
    throw std::runtime_error("rate-optimized ADPCM payload accounting mismatch");
  }
  finish_frame(frame, writer, frame_bytes, FrameKind::stereo);
  if (static_cast<std::uint64_t>(frame.payload_bits) + reserved > budget) {
    throw std::runtime_error("rate-optimized ADPCM frame exceeded reserved budget");
  }
  state.adpcm.history_available = true;
  state.adpcm.reset_pending = false;
  return frame;
}

DispatchedFrame dispatch_stereo_frame(const std::vector<const double*>& channels, std::uint8_t amode,
                                      const StreamParams& stream, std::uint32_t frame_bytes,
                                      const LegacyEncoderConfig& config, LegacyEncoderState& state,
                                      const Span24Config& span24_config, Span24State& span24_state,
                                      bool production_candidate) {
  const bool standard_rate = stream.sample_rate == 44100 || stream.sample_rate == 48000;
  const bool standard_bitrate = stream.bitrate == 768000 || stream.bitrate == 1024000 ||
                                stream.bitrate == 1152000 || stream.bitrate == 1411200;
  DispatchedFrame result;
  if (production_candidate && channels.size() == 2 && standard_rate && frame_bytes != 0 && standard_bitrate) {
    Span24Frame made = encode_span24_frame(channels, amode, stream, frame_bytes, span24_config, span24_state);
    result.frame = std::move(made.frame);
    result.kind = FrameEncoderKind::span24;
    result.span24_predictions = made.predictions;
    result.span24_reinvested_bits = made.reinvested_bits;
    return result;
  }
  result.frame = encode_legacy_frame(channels, amode, stream, frame_bytes, config, state);
  result.kind = FrameEncoderKind::legacy_adpcm;
  return result;
}

}  // namespace tavrin
