#pragma once
// FLAC input through libFLAC, loaded when a FLAC file is actually read so
// that the program runs without it. A file is decoded twice and never held
// whole: once to check it and learn its shape, once to hand its audio on.
#include <cstdint>
#include <string>

#include "input/layout.h"
#include "input/pcm_frames.h"

namespace tavrin {

struct FlacStreamInfo {
  std::uint32_t sample_rate = 0;
  unsigned bits_per_sample = 0;
  ChannelLayout layout;
  std::uint64_t total_samples = 0;  // per channel, as the checking pass decoded them
};

// Checking pass: decodes the whole file once, keeping only the stream
// parameters and the sample count, so that every failure is reported with its
// exact text before any frame is written.
FlacStreamInfo check_flac_file(const std::string& path);

// Encoding pass: decodes the file again and hands every 1024 sample frames
// (the last one may be shorter; none when empty) to `sink` in coding order.
// Parameters that differ from `expected`, sample count included (the file
// changed between passes), fail with "libFLAC decode failed". An exception
// thrown by the sink comes out of here unchanged.
void read_flac_frames(const std::string& path, const FlacStreamInfo& expected, const PcmFrameSink& sink);

}  // namespace tavrin
