#pragma once
// The one frame loop behind every encode path: PCM frames in (pushed by a
// reader), one QMF bank per primary channel, the frame sizer, the frame
// encoder chosen for the layout, each frame written as soon as it is made,
// and the counts the drivers' summaries report.
#include <cstdint>
#include <memory>
#include <ostream>
#include <variant>
#include <vector>

#include "alloc/legacy_encoder.h"
#include "alloc/multichannel_encoder.h"
#include "app/options.h"
#include "bitstream/cbr_sizer.h"
#include "dsp/headroom.h"
#include "dsp/qmf.h"
#include "input/layout.h"
#include "input/pcm_frames.h"

namespace tavrin {

struct LoopTotals {
  std::uint64_t samples = 0;  // input sample frames encoded
  std::uint64_t frames = 0;
  std::uint64_t legacy_frames = 0;
  std::uint64_t span24_frames = 0;
  std::uint64_t span24_predictions = 0;
  std::uint64_t span24_reinvested_bits = 0;
  std::uint64_t total_bytes = 0;
  std::uint32_t smallest = 65535;
  std::uint32_t largest = 0;
  std::uint64_t padding = 0;  // zero samples per channel in the final frame
  std::uint64_t active_min = 0;
  std::uint64_t active_total = 0;
  std::uint64_t active_max = 0;
  std::uint64_t headroom_frames = 0;  // frames whose level had to be lowered
  double headroom_least_gain = 1.0;
};

// The stereo frame encoders with their stream state: the dispatcher, or the
// span24 encoder alone for an experimental mode.
struct StereoFrameEncoder {
  LegacyEncoderConfig config;
  LegacyEncoderState state;
  Span24Config span24;
  Span24State span24_state;
  bool production_candidate = false;
  bool experimental_span24 = false;
};

struct MultichannelFrameEncoder {
  MultichannelEncoderConfig config;
  MultichannelEncoderState state;
};

struct EncodeLoop {
  ChannelLayout layout;
  StreamParams stream;
  std::vector<std::size_t> primary_slots;  // coding-order slots of the full-band channels
  int lfe_slot = -1;
  CbrFrameSizer sizer;
  std::unique_ptr<QmfAnalysisBank[]> banks;  // large: kept off the stack
  std::vector<SubbandBlock> subbands;
  HeadroomState headroom;
  std::variant<StereoFrameEncoder, MultichannelFrameEncoder> encoder;
  std::ostream* out = nullptr;
  LoopTotals totals;
};

// Sets up the stream for `layout`: "2.0" goes to the stereo dispatcher,
// every other layout to the multichannel encoder.
EncodeLoop open_encode_loop(std::ostream& out, const ChannelLayout& layout, std::uint32_t sample_rate,
                            const EncoderOptions& options);

// Encodes one frame and writes it. The frame's vectors are padded with
// zeros to 1024 samples in place. "failed writing DTS output" when the
// output refuses the bytes.
void encode_pcm_frame(EncodeLoop& loop, PcmFrame& frame);

// The totals once the last frame is in (for an empty stream, the frame size
// reported is the stream's base size).
LoopTotals finish_encode_loop(const EncodeLoop& loop);

// Pushes every frame of an input into a sink.
using PcmReader = std::function<void(const PcmFrameSink&)>;

}  // namespace tavrin
