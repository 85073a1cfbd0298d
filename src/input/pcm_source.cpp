#include "input/pcm_source.h"

namespace tavrin {

std::string input_label(const PcmSourceInfo& info) {
  if (info.raw) return "raw PCM";
  if (info.extensible) return "WAVEFORMATEXTENSIBLE";
  return "WAVE";
}

std::uint64_t frame_bytes(const PcmSourceInfo& info) {
  return std::uint64_t{bytes_per_sample(info.format)} * info.channels;
}

std::uint64_t frame_count(const PcmSourceInfo& info) {
  const std::uint64_t per_frame = frame_bytes(info);
  return per_frame == 0 || info.until_end ? 0 : info.data_bytes / per_frame;
}

}  // namespace tavrin
