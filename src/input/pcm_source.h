#pragma once
// What an opened input holds: a stream description (WAVE, RF64, raw) or a
// whole decoded buffer (FLAC).
#include <cstdint>
#include <string>
#include <vector>

#include "input/layout.h"
#include "input/sample_format.h"

namespace tavrin {

struct PcmSourceInfo {
  SampleFormat format = SampleFormat::s24le;
  std::uint16_t channels = 0;
  std::uint32_t sample_rate = 0;
  ChannelLayout layout;
  std::vector<SpeakerId> source_order;
  bool extensible = false;
  std::uint64_t data_offset = 0;
  std::uint64_t data_bytes = 0;
  bool rf64 = false;
  bool raw = false;
  // The input is a pipe whose length nobody stated: the audio runs to the
  // input's end and data_bytes means nothing.
  bool until_end = false;
};

// "raw PCM", "WAVEFORMATEXTENSIBLE" or "WAVE".
std::string input_label(const PcmSourceInfo& info);
// Bytes of one interleaved sample frame.
std::uint64_t frame_bytes(const PcmSourceInfo& info);
// Whole sample frames in the data (64-bit throughout); 0 when until_end.
std::uint64_t frame_count(const PcmSourceInfo& info);

struct PcmBuffer {
  std::uint32_t sample_rate = 0;
  unsigned bits_per_sample = 0;
  ChannelLayout layout;
  std::vector<std::vector<double>> channels;  // coding order
};

}  // namespace tavrin
