#pragma once
// The adaptive multichannel Core path for 3.0, 4.0, 5.0 and 5.1: the
// adaptive allocation spends what the frame leaves after its header and LFE
// on the primary channels, the LFE is filtered, aligned and coded, and the
// frame is written at its exact CBR size.
#include <cstdint>

#include "alloc/allocation.h"
#include "alloc/frame_record.h"
#include "bitstream/frame.h"
#include "dsp/lfe_filter.h"
#include "input/layout.h"

namespace tavrin {

// Fixed for the whole stream.
struct MultichannelEncoderConfig {
  ChannelLayout layout;
  StreamParams stream;
  AllocationConfig allocation = stereo_allocation_config();
};

struct MultichannelEncoderState {
  LfeFilter lfe;  // carries the LFE's filter history from frame to frame
};

MultichannelEncoderState open_multichannel_encoder(const MultichannelEncoderConfig& config);

struct MultichannelFrame {
  CoreFrame frame;
  // (subframe, channel, band) entries coded with a non-zero ABITS.
  std::uint32_t active_bands = 0;
};

MultichannelFrame encode_multichannel_frame(const FrameRecord& record, const MultichannelEncoderConfig& config,
                                            MultichannelEncoderState& state);

}  // namespace tavrin
