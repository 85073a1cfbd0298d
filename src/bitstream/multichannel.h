#pragma once
// The parts of a 3.0, 4.0, 5.0 or 5.1 Core frame that do not depend on how
// the payload is allocated: the checks of the frame's inputs, its header,
// the bits left for the primary channels, and the LFE's coding.
#include <cstddef>
#include <cstdint>

#include "bitstream/frame_header.h"
#include "bitstream/subframe.h"
#include "input/layout.h"

namespace tavrin {

inline constexpr unsigned kMultichannelLff = 2;
inline constexpr std::size_t kLfeSamplesPerSubframe = 4;

struct MultichannelFrameSetup {
  CoreFrameHeader header;
  std::uint64_t lfe_bits = 0;        // the four subframes' LFE fields; 0 without LFE
  std::uint64_t payload_budget = 0;  // what is left for the primary header and subframes
};

// Runs the checks in order and fills the frame header. std::invalid_argument
// "invalid multichannel layout", "generic multichannel writer excludes
// stereo", "multichannel writer supports 44.1/48 kHz", "primary channel count
// does not match layout", "LFE layout requires LFE PCM", "non-LFE layout must
// not supply LFE PCM", "unsupported public multichannel AMODE"; then
// std::runtime_error "multichannel target frame too small" when the frame
// cannot hold more than its header and LFE.
MultichannelFrameSetup setup_multichannel_frame(const ChannelLayout& layout, std::size_t primary_blocks,
                                                bool lfe_given, std::uint32_t sample_rate, std::uint32_t bitrate,
                                                std::uint32_t frame_bytes);

// Codes one subframe's four LFE samples (already filtered and picked) with
// their shared 7-bit scale index into `subframe`. std::invalid_argument
// "invalid DTS 7-bit LFE scale index" should the index leave the table.
void code_lfe_subframe(Subframe& subframe, const double* samples);

}  // namespace tavrin
