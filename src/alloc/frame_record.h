#pragma once
// What the encode loop hands a frame encoder for each 1024-sample frame.
#include <cstdint>
#include <vector>

namespace tavrin {

struct StreamParams {
  std::uint32_t sample_rate = 48000;
  std::uint32_t bitrate = 768000;
};

struct FrameRecord {
  // One block of 1024 subband samples per primary channel, coding order
  // (subframe s, sample k, band b at s * 256 + k * 32 + b).
  std::vector<const double*> primary;
  const double* lfe = nullptr;  // the frame's 1024 LFE input samples, or null
  std::uint8_t amode = 0;
  std::uint8_t lff = 0;
  std::uint32_t frame_bytes = 0;  // this frame's CBR size
};

}  // namespace tavrin
