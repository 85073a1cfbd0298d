// The stereo encode: the frame loop with the stereo frame dispatcher, and
// its summary.
#include <iostream>
#include <stdexcept>
#include <string>

#include "app/drivers.h"

namespace tavrin {

namespace {

void print_summary(const LoopTotals& s, const PcmInput& input, const EncoderOptions& options) {
  std::ostream& o = std::cout;
  o << "Input: " << input.sample_rate << " Hz, " << input.format_name << ", stereo, " << s.samples
    << " samples (" << input.label << ")\n";
  o << output_line(s, options.bitrate);
  o << "Path: ";
  if (options.span24Given) {
    o << "EXPERIMENTAL 24+8 rate-aware (" << options.span24Mode << ")";
  } else if (s.span24_frames == 0) {
    o << "legacy ADPCM rate";
  } else if (s.legacy_frames == 0) {
    o << (options.productionCandidate ? "PRODUCTION-CANDIDATE 24+8 rate-aware" : "24+8 ADPCM/psycho");
  } else {
    o << "mixed";
  }
  o << "\n";
  if (s.frames > 0) o << realized_line(s, input.sample_rate);
  if (s.span24_frames > 0) {
    o << "Span24 frames: " << s.span24_frames << ", predictions: " << s.span24_predictions
      << ", reinvested bits: " << s.span24_reinvested_bits << "\n";
  }
  if (s.padding != 0) o << "Final frame zero-padded by " << s.padding << " samples/channel\n";
  o << headroom_line(s);
  o.flush();
}

}  // namespace

PcmInput stream_input(std::istream& in, const PcmSourceInfo& info) {
  PcmInput input;
  input.layout = info.layout;
  input.sample_rate = info.sample_rate;
  input.format_name = std::string(sample_format_name(info.format));
  input.label = input_label(info);
  input.total_samples = frame_count(info);
  input.read = [&in, info](const PcmFrameSink& sink) { read_stream_frames(in, info, sink); };
  return input;
}

PcmInput memory_input(const PcmBuffer& buffer, std::uint32_t sample_rate, const std::string& label) {
  PcmInput input;
  input.layout = buffer.layout;
  input.sample_rate = sample_rate;
  input.format_name = std::to_string(buffer.bits_per_sample) + "-bit";
  input.label = label;
  input.total_samples = buffer.channels.empty() ? 0 : buffer.channels[0].size();
  input.read = [&buffer](const PcmFrameSink& sink) { read_buffer_frames(buffer, sink); };
  return input;
}

PcmInput flac_input(const std::string& path, const FlacStreamInfo& info) {
  PcmInput input;
  input.layout = info.layout;
  input.sample_rate = info.sample_rate;
  input.format_name = std::to_string(info.bits_per_sample) + "-bit";
  input.label = "FLAC";
  input.total_samples = info.total_samples;
  input.read = [path, info](const PcmFrameSink& sink) { read_flac_frames(path, info, sink); };
  return input;
}

void encode_stereo(std::ostream& out, const PcmInput& input, const EncoderOptions& options,
                   ProgressState* progress) {
  print_summary(encode_input(out, input, options, progress), input, options);
}

void encode_stereo_stream(std::istream& in, std::ostream& out, const PcmSourceInfo& info,
                          const EncoderOptions& options, ProgressState* progress) {
  encode_stereo(out, stream_input(in, info), options, progress);
}

void encode_stereo_memory(std::ostream& out, const PcmBuffer& buffer, std::uint32_t sample_rate,
                          const EncoderOptions& options, const std::string& label) {
  if (buffer.channels.size() != 2) throw std::runtime_error("stereo memory input requires 2 channels");
  if (buffer.channels[0].size() != buffer.channels[1].size()) {
    throw std::runtime_error("stereo channel length mismatch");
  }
  PcmInput input = memory_input(buffer, sample_rate, label);
  input.layout = stereo_layout();
  encode_stereo(out, input, options);
}

}  // namespace tavrin
