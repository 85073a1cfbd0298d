#pragma once
// The unit in which every reader hands audio to the encode loop: up to 1024
// sample frames, one vector per channel in coding order. Readers push frames
// into a sink rather than being pulled, so that a decoder that calls back
// (libFLAC) and a plain stream read feed the same loop.
#include <cstddef>
#include <functional>
#include <istream>
#include <vector>

#include "input/pcm_source.h"

namespace tavrin {

inline constexpr std::size_t kPcmFrameSamples = 1024;
inline constexpr char kUnexpectedPcmEnd[] = "unexpected end of PCM input";

struct PcmFrame {
  // One vector per layout channel, coding order, each holding `count`
  // samples at full scale +-1.0. The sink may pad or reuse them.
  std::vector<std::vector<double>> channels;
  std::size_t count = 0;  // 1..1024; only a stream's last frame is shorter
};

using PcmFrameSink = std::function<void(PcmFrame& frame)>;

// The audio of an opened WAVE, RF64 or raw input, `in` standing at its first
// byte: frame_count(info) sample frames, converted into coding order.
// "unexpected end of PCM input" when the stream ends early. With
// info.until_end, everything up to the input's end, which must fall on a
// sample frame.
void read_stream_frames(std::istream& in, const PcmSourceInfo& info, const PcmFrameSink& sink);

// A whole buffer, its channels already in coding order and equally long.
void read_buffer_frames(const PcmBuffer& buffer, const PcmFrameSink& sink);

}  // namespace tavrin
