#include "input/pcm_frames.h"

#include <algorithm>
#include <stdexcept>

#include "input/raw.h"

namespace tavrin {

namespace {

// A pipe of unstated length: whole reads until the input ends. Only the
// last read may come up short, and it must still end on a sample frame.
void read_until_end(std::istream& in, const PcmSourceInfo& info, const PcmFrameSink& sink) {
  const std::uint64_t frame_size = frame_bytes(info);
  std::vector<std::uint8_t> bytes(kPcmFrameSamples * frame_size);
  PcmFrame frame;
  const auto wanted = static_cast<std::streamsize>(bytes.size());
  for (bool more = true; more;) {
    in.read(reinterpret_cast<char*>(bytes.data()), wanted);
    const auto got = static_cast<std::uint64_t>(in.gcount());
    if (got % frame_size != 0) throw std::runtime_error(info.raw ? kRawPartialFrame : kUnexpectedPcmEnd);
    frame.count = static_cast<std::size_t>(got / frame_size);
    more = in.gcount() == wanted;
    if (frame.count == 0) break;
    deinterleave_into(bytes.data(), frame.count, info.format, info.layout, info.source_order, frame.channels);
    sink(frame);
  }
}

}  // namespace

void read_stream_frames(std::istream& in, const PcmSourceInfo& info, const PcmFrameSink& sink) {
  if (info.until_end) {
    read_until_end(in, info, sink);
    return;
  }
  const std::uint64_t frame_size = frame_bytes(info);
  const std::uint64_t total = frame_count(info);
  // Every frame is read and converted into the same buffers.
  std::vector<std::uint8_t> bytes(kPcmFrameSamples * frame_size);
  PcmFrame frame;
  for (std::uint64_t done = 0; done < total;) {
    frame.count = static_cast<std::size_t>(std::min<std::uint64_t>(kPcmFrameSamples, total - done));
    const auto wanted = static_cast<std::streamsize>(frame.count * frame_size);
    in.read(reinterpret_cast<char*>(bytes.data()), wanted);
    if (in.gcount() != wanted) throw std::runtime_error(kUnexpectedPcmEnd);
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
