#include "alloc/legacy_encoder.h"

#include <stdexcept>

#include "bitstream/bit_writer.h"
#include "bitstream/frame_header.h"
#include "dsp/quantizer.h"

namespace tavrin {

namespace {

constexpr unsigned kSubframes = 4;
constexpr unsigned kBands = 32;
constexpr unsigned kSamplesPerSubframe = 8;

}  // namespace

PrimaryHeader legacy_primary_header(unsigned channels) {
  PrimaryHeader header;
  header.subfs = kSubframes;
  header.subs.assign(channels, kBands);
  header.vqsub.assign(channels, kBands);
  header.joinx.assign(channels, 0);
  header.thuff.assign(channels, 0);
  header.shuff.assign(channels, 5);  // 6-bit linear scale indexes
  header.bhuff.assign(channels, 6);  // 5-bit linear ABITS
  // Every selector at its largest value: the linear books, and no scale
  // adjustment field is written at all.
  header.sel.assign(channels, std::vector<std::uint8_t>{1, 3, 3, 3, 3, 7, 7, 7, 7, 7});
  return header;
}

FramePayload payload_from_plan(const std::vector<const double*>& channels, const AllocationPlan& plan) {
  const std::size_t count = channels.size();
  if (count < 1 || count > 5) throw std::invalid_argument("DTS adaptive payload requires 1..5 channels");
  if (plan.subframes.size() != kSubframes) {
    throw std::invalid_argument("Phase-7 adaptive payload requires four subframes");
  }
  FramePayload payload;
  payload.header = legacy_primary_header(static_cast<unsigned>(count));
  payload.lff = 0;
  payload.subframes.resize(kSubframes);
  for (unsigned s = 0; s < kSubframes; ++s) {
    const auto& plan_sub = plan.subframes[s];
    if (plan_sub.size() != count) throw std::runtime_error("adaptive allocation channel mismatch");
    Subframe& sub = payload.subframes[s];
    sub.ssc = 1;
    sub.psc = 0;
    sub.pmode.assign(count, std::vector<std::uint8_t>(kBands, 0));
    sub.pvq.assign(count, std::vector<std::uint16_t>(kBands, 0));
    sub.abits.assign(count, std::vector<std::uint8_t>(kBands, 0));
    sub.tmode.assign(count, std::vector<std::uint8_t>(kBands, 0));
    sub.scale.assign(count, std::vector<std::uint8_t>(kBands, 0));
    sub.scale2.assign(count, std::vector<std::uint8_t>(kBands, 0));
    sub.audio.assign(count, std::vector<std::int32_t>(kBands * kSamplesPerSubframe, 0));
    for (std::size_t c = 0; c < count; ++c) {
      if (plan_sub[c].size() != kBands) throw std::runtime_error("adaptive allocation band mismatch");
      const double* block = channels[c] + s * kBands * kSamplesPerSubframe;
      for (unsigned b = 0; b < kBands; ++b) {
        const AllocationBand& band = plan_sub[c][b];
        if (band.abits == 0) continue;
        sub.abits[c][b] = band.abits;
        sub.scale[c][b] = band.quantizer.scale_index;
        for (unsigned k = 0; k < kSamplesPerSubframe; ++k) {
          sub.audio[c][b * kSamplesPerSubframe + k] = quantize(block[k * kBands + b], band.quantizer);
        }
      }
    }
  }
  return payload;
}

CoreFrame encode_legacy_frame(const std::vector<const double*>& channels, std::uint8_t amode,
                              const StreamParams& stream, std::uint32_t frame_bytes, LegacyEncoderConfig& config,
                              LegacyEncoderState& state) {
  if (channels_for_amode(amode) != channels.size()) {
    throw std::invalid_argument("AMODE primary-channel count mismatch");
  }
  CoreFrame frame;
  CoreFrameHeader& header = frame.header;
  header.amode = amode;
  header.sample_rate = stream.sample_rate;
  header.bitrate = stream.bitrate;
  header.frame_bytes = static_cast<std::uint16_t>(frame_bytes);
  header.filts = 1;
  header.vernum = 7;
  header.chist = 0;
  header.hflag = (state.adpcm.history_available && !state.adpcm.reset_pending) ? 1 : 0;

  BitWriter scratch;
  write_header(scratch, header);
  const std::uint64_t header_bits = scratch.bit_count();
  const std::uint64_t budget = static_cast<std::uint64_t>(frame_bytes & 0xFFFFu) * 8;
  const std::uint64_t reserved = config.allocation.reserved_bits;
  if (budget <= header_bits + reserved) {
    throw std::invalid_argument("frame too small for rate-optimized ADPCM DTS Core header");
  }
  const std::uint64_t payload_budget = budget - header_bits - reserved;

  const PsychoAnalysis psycho = analyse_psycho(channels, &state.psycho, config.psycho);
  config.allocation.psycho_weighting = 1;
  const AllocationPlan plan = allocate(channels, payload_budget, config.allocation, &psycho);
  frame.payload = payload_from_plan(channels, plan);

  const AdpcmRateResult rate =
      allocate_adpcm_rates(channels, frame.payload, plan.total_bits, payload_budget, state.adpcm);
  if (payload_bit_count(frame.payload) != rate.payload_bits) {
    throw std::runtime_error("rate-optimized ADPCM payload accounting mismatch");
  }
  write_frame(frame, frame_bytes, FrameKind::stereo);
  if (static_cast<std::uint64_t>(frame.payload_bits) + reserved > budget) {
    throw std::runtime_error("rate-optimized ADPCM frame exceeded reserved budget");
  }
  state.adpcm.history_available = true;
  state.adpcm.reset_pending = false;
  return frame;
}

DispatchedFrame dispatch_stereo_frame(const std::vector<const double*>& channels, std::uint8_t amode,
                                      const StreamParams& stream, std::uint32_t frame_bytes,
                                      LegacyEncoderConfig& config, LegacyEncoderState& state,
                                      bool production_candidate) {
  const bool standard_rate = stream.sample_rate == 44100 || stream.sample_rate == 48000;
  const bool standard_bitrate = stream.bitrate == 768000 || stream.bitrate == 1024000 ||
                                stream.bitrate == 1152000 || stream.bitrate == 1411200;
  if (production_candidate && channels.size() == 2 && standard_rate && frame_bytes != 0 && standard_bitrate) {
    throw std::runtime_error("the production-candidate 24+8 encoder is not available in this version yet");
  }
  DispatchedFrame result;
  result.frame = encode_legacy_frame(channels, amode, stream, frame_bytes, config, state);
  result.kind = FrameEncoderKind::legacy_adpcm;
  return result;
}

}  // namespace tavrin
