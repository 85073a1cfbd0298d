#include "input/pcm_frames.h"

#include <algorithm>
#include <stdexcept>

namespace tavrin {

void read_stream_frames(std::istream& in, const PcmSourceInfo& info, const PcmFrameSink& sink) {
  const std::uint64_t frame_size = frame_bytes(info);
  const std::uint64_t total = frame_count(info);
  // Every frame is read and converted into the same buffers.
  std::vector<std::uint8_t> bytes(kPcmFrameSamples * frame_size);
  PcmFrame frame;
  for (std::uint64_t done = 0; done < total;) {
    frame.count = static_cast<std::size_t>(std::min<std::uint64_t>(kPcmFrameSamples, total - done));
    const auto wanted = static_cast<std::streamsize>(frame.count * frame_size);
    in.read(reinterpret_cast<char*>(bytes.data()), wanted);
    if (in.gcount() != wanted) throw std::runtime_error("unexpected end of PCM input");
    deinterleave_into(bytes.data(), frame.count, info.format, info.layout, info.source_order, frame.channels);
    sink(frame);
    done += frame.count;
  }
}

void read_buffer_frames(const PcmBuffer& buffer, const PcmFrameSink& sink) {
  const std::size_t total = buffer.channels.empty() ? 0 : buffer.channels[0].size();
  PcmFrame frame;
  frame.channels.resize(buffer.channels.size());
  for (std::size_t done = 0; done < total; done += frame.count) {
    frame.count = std::min(kPcmFrameSamples, total - done);
    for (std::size_t c = 0; c < buffer.channels.size(); ++c) {
      const auto first = buffer.channels[c].begin() + static_cast<std::ptrdiff_t>(done);
      frame.channels[c].assign(first, first + static_cast<std::ptrdiff_t>(frame.count));
    }
    sink(frame);
  }
}

}  // namespace tavrin
