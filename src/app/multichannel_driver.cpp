// The multichannel encode (3.0, 4.0, 5.0, 5.1): the frame loop with the
// adaptive multichannel Core encoder, and its summary.
#include <iostream>
#include <stdexcept>
#include <string>

#include "app/drivers.h"

namespace tavrin {

namespace {

void print_summary(const LoopTotals& s, const PcmInput& input, const EncoderOptions& options) {
  std::ostream& o = std::cout;
  o << "Input: " << input.sample_rate << " Hz, " << input.layout.name << ", " << s.samples
    << " samples/channel (" << input.label << ")\n";
  o << output_line(s, options.bitrate);
  o << "Path: adaptive multichannel Core (AMODE " << unsigned{input.layout.amode}
    << (input.layout.has_lfe ? " + LFF2" : "") << ")\n";
  if (s.frames > 0) {
    o << realized_line(s, input.sample_rate);
    o << "Active band-groups min/avg/max: " << s.active_min << "/"
      << fixed2(average_active_bands(s)) << "/" << s.active_max << "\n";
  }
  if (s.padding != 0) o << "Final frame zero-padded by " << s.padding << " samples/channel\n";
  o << headroom_line(s);
  o.flush();
}

}  // namespace

void encode_multichannel(std::ostream& out, const PcmInput& input, const EncoderOptions& options,
                         ProgressState* progress) {
  if (options.legacy || options.productionCandidate || options.span24Given) {
    throw std::runtime_error("--legacy, --production-candidate and --experimental-span24 are stereo-only");
  }
  if (!validate_layout(input.layout)) throw std::runtime_error("invalid multichannel layout");
  print_summary(encode_input(out, input, options, progress), input, options);
}

void encode_multichannel_stream(std::istream& in, std::ostream& out, const PcmSourceInfo& info,
                                const EncoderOptions& options, ProgressState* progress) {
  encode_multichannel(out, stream_input(in, info), options, progress);
}

void encode_multichannel_memory(std::ostream& out, const PcmBuffer& buffer, std::uint32_t sample_rate,
                                const EncoderOptions& options, const std::string& label) {
  if (buffer.channels.size() != buffer.layout.channel_count) {
    throw std::runtime_error("memory PCM channel count mismatch");
  }
  if (buffer.channels.empty() || buffer.channels[0].empty()) throw std::runtime_error("empty input");
  for (const auto& channel : buffer.channels) {
    if (channel.size() != buffer.channels[0].size()) throw std::runtime_error("memory PCM channel lengths differ");
  }
  if (buffer.layout.name == "2.0" || !validate_layout(buffer.layout)) {
    throw std::runtime_error("unsupported channel layout");
  }
  encode_multichannel(out, memory_input(buffer, sample_rate, label), options);
}

}  // namespace tavrin
