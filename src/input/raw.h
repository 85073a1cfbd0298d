#pragma once
// Headerless interleaved PCM described entirely by the command line.
#include <cstdint>
#include <vector>

#include "input/layout.h"
#include "input/pcm_source.h"
#include "input/sample_format.h"

namespace tavrin {

struct RawPcmDescription {
  std::uint32_t sample_rate = 0;
  SampleFormat format = SampleFormat::s16le;
  ChannelLayout layout;
  std::vector<SpeakerId> source_order;  // empty: the layout's default order
};

// `byte_count` is the whole file; the audio starts at offset 0.
PcmSourceInfo open_raw(std::uint64_t byte_count, const RawPcmDescription& description);
// The same checks for a pipe, whose length is known only at its end.
PcmSourceInfo open_raw_stream(const RawPcmDescription& description);

inline constexpr char kRawPartialFrame[] = "raw PCM byte count is not whole interleaved frames";

}  // namespace tavrin
