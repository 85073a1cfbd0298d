#include "input/raw.h"

#include <stdexcept>
#include <utility>

namespace tavrin {

namespace {

PcmSourceInfo describe_raw(const RawPcmDescription& description) {
  if (description.sample_rate != 44100 && description.sample_rate != 48000) {
    throw std::runtime_error("raw PCM sample rate must be 44100 or 48000");
  }
  if (!validate_layout(description.layout)) throw std::runtime_error("invalid raw PCM layout");

  std::vector<SpeakerId> order =
      description.source_order.empty() ? default_source_order(description.layout.name) : description.source_order;
  if (order.size() != description.layout.channel_count) {
    throw std::runtime_error("raw PCM source-order channel count mismatch");
  }

  PcmSourceInfo info;
  info.format = description.format;
  info.channels = description.layout.channel_count;
  info.sample_rate = description.sample_rate;
  info.layout = description.layout;
  info.source_order = std::move(order);
  info.data_offset = 0;
  info.raw = true;
  return info;
}

}  // namespace

PcmSourceInfo open_raw(std::uint64_t byte_count, const RawPcmDescription& description) {
  PcmSourceInfo info = describe_raw(description);
  const std::uint64_t per_frame = frame_bytes(info);
  if (per_frame == 0 || byte_count % per_frame != 0) throw std::runtime_error(kRawPartialFrame);
  info.data_bytes = byte_count;
  return info;
}

PcmSourceInfo open_raw_stream(const RawPcmDescription& description) {
  PcmSourceInfo info = describe_raw(description);
  info.until_end = true;
  return info;
}

}  // namespace tavrin
