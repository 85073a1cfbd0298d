#include "app/frame_loop.h"

#include <algorithm>
#include <stdexcept>

namespace tavrin {

namespace {

struct MadeFrame {
  std::vector<std::uint8_t> bytes;
  FrameEncoderKind kind = FrameEncoderKind::legacy_adpcm;
  std::uint64_t span24_predictions = 0;
  std::uint64_t span24_reinvested_bits = 0;
  std::uint32_t active_bands = 0;
};

MadeFrame make_frame(StereoFrameEncoder& e, const FrameRecord& record, const StreamParams& stream) {
  if (e.experimental_span24) {
    Span24Frame f = encode_span24_frame(record.primary, record.amode, stream, record.frame_bytes, e.span24,
                                        e.span24_state);
    return {std::move(f.frame.bytes), FrameEncoderKind::span24, f.predictions, f.reinvested_bits, 0};
  }
  DispatchedFrame d = dispatch_stereo_frame(record.primary, record.amode, stream, record.frame_bytes, e.config,
                                            e.state, e.span24, e.span24_state, e.production_candidate);
  return {std::move(d.frame.bytes), d.kind, d.span24_predictions, d.span24_reinvested_bits, 0};
}

MadeFrame make_frame(MultichannelFrameEncoder& e, const FrameRecord& record, const StreamParams&) {
  MultichannelFrame m = encode_multichannel_frame(record, e.config, e.state);
  MadeFrame made;
  made.bytes = std::move(m.frame.bytes);
  made.active_bands = m.active_bands;
  return made;
}

// libstdc++ hands every write of 1 KB or more straight to the system, past
// the stream's buffer. A frame is written in smaller pieces so that frames
// collect in the buffer and reach the file in large blocks; on failure the
// frames written before stay in the stream and are flushed when it closes.
void write_frame_bytes(std::ostream& out, const std::vector<std::uint8_t>& bytes) {
  constexpr std::size_t kPiece = 1000;
  for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
    const std::size_t n = std::min(kPiece, bytes.size() - at);
    out.write(reinterpret_cast<const char*>(bytes.data() + at), static_cast<std::streamsize>(n));
  }
  if (!out) throw std::runtime_error("failed writing DTS output");
}

double* frame_lfe(PcmFrame& frame, const EncodeLoop& loop) {
  return loop.lfe_slot < 0 ? nullptr : frame.channels[static_cast<std::size_t>(loop.lfe_slot)].data();
}

void count_frame(LoopTotals& t, const MadeFrame& made) {
  t.total_bytes += made.bytes.size();
  if (made.kind == FrameEncoderKind::span24) {
    ++t.span24_frames;
    t.span24_predictions += made.span24_predictions;
    t.span24_reinvested_bits += made.span24_reinvested_bits;
  } else {
    ++t.legacy_frames;
  }
  t.active_min = t.frames == 0 ? made.active_bands : std::min<std::uint64_t>(t.active_min, made.active_bands);
  t.active_max = std::max<std::uint64_t>(t.active_max, made.active_bands);
  t.active_total += made.active_bands;
  ++t.frames;
}

}  // namespace

EncodeLoop open_encode_loop(std::ostream& out, const ChannelLayout& layout, std::uint32_t sample_rate,
                            const EncoderOptions& options) {
  EncodeLoop loop;
  loop.layout = layout;
  loop.stream = {sample_rate, options.bitrate};
  for (std::size_t slot = 0; slot < layout.channel_count; ++slot) {
    if (layout.speakers[slot] == SpeakerId::LFE) {
      loop.lfe_slot = static_cast<int>(slot);
    } else {
      loop.primary_slots.push_back(slot);
    }
  }
  loop.sizer = make_cbr_frame_sizer(static_cast<int>(sample_rate), static_cast<int>(options.bitrate),
                                    static_cast<int>(kPcmFrameSamples));
  loop.banks = std::make_unique<QmfAnalysisBank[]>(loop.primary_slots.size());
  loop.subbands.resize(loop.primary_slots.size());
  if (layout.name == "2.0") {
    StereoFrameEncoder stereo;
    stereo.production_candidate = options.productionCandidate;
    stereo.experimental_span24 = options.span24Given;
    if (options.span24Given) {
      stereo.span24.settings = span24_settings(options.span24Mode, options.span24Scale, options.span24TransientMode);
    }
    loop.encoder = std::move(stereo);
  } else {
    MultichannelFrameEncoder multi;
    multi.config.layout = layout;
    multi.config.stream = loop.stream;
    multi.state = open_multichannel_encoder(multi.config);
    loop.encoder = std::move(multi);
  }
  loop.out = &out;
  return loop;
}

void encode_pcm_frame(EncodeLoop& loop, PcmFrame& frame) {
  const bool stereo = std::holds_alternative<StereoFrameEncoder>(loop.encoder);
  if (frame.channels.size() != loop.layout.channel_count) {
    throw std::runtime_error(stereo ? "internal stereo PCM mapping failure" : "PCM channel count does not match layout");
  }
  for (auto& channel : frame.channels) {
    if (channel.size() != frame.count) {
      throw std::runtime_error(stereo ? "internal stereo PCM mapping failure"
                                      : "each PCM channel requires at least 1024 samples");
    }
    if (frame.count < kPcmFrameSamples) channel.resize(kPcmFrameSamples, 0.0);
  }
  LoopTotals& totals = loop.totals;
  totals.samples += frame.count;
  if (frame.count < kPcmFrameSamples) totals.padding = kPcmFrameSamples - frame.count;

  FrameRecord record;
  record.amode = loop.layout.amode;
  record.lff = loop.lfe_slot >= 0 ? 2 : 0;
  for (std::size_t c = 0; c < loop.primary_slots.size(); ++c) {
    loop.subbands[c] = analyse_frame(loop.banks[c], frame.channels[loop.primary_slots[c]].data());
    record.primary.push_back(loop.subbands[c].samples.data());
  }
  double* const lfe = frame_lfe(frame, loop);
  record.lfe = lfe;
  apply_headroom(loop.headroom, loop.subbands, lfe);
  record.frame_bytes = next_frame_bytes(loop.sizer);
  totals.smallest = std::min(totals.smallest, record.frame_bytes);
  totals.largest = std::max(totals.largest, record.frame_bytes);

  const MadeFrame made = std::visit([&](auto& e) { return make_frame(e, record, loop.stream); }, loop.encoder);
  write_frame_bytes(*loop.out, made.bytes);
  count_frame(totals, made);
}

LoopTotals finish_encode_loop(const EncodeLoop& loop) {
  LoopTotals totals = loop.totals;
  if (totals.frames == 0) totals.smallest = totals.largest = loop.sizer.base_bytes;
  totals.headroom_frames = loop.headroom.frames_lowered;
  totals.headroom_least_gain = loop.headroom.least_gain;
  return totals;
}

}  // namespace tavrin
