// The stereo encode: PCM in 1024-sample frames, one QMF bank per channel, the
// frame dispatcher, each frame written as soon as it is made, and the
// summary.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "alloc/legacy_encoder.h"
#include "app/drivers.h"
#include "bitstream/cbr_sizer.h"
#include "dsp/qmf.h"

namespace tavrin {

namespace {

constexpr std::size_t kFrameSamples = 1024;
constexpr std::uint8_t kStereoAmode = 2;

struct StereoSummary {
  std::uint64_t frames = 0;
  std::uint64_t legacy_frames = 0;
  std::uint64_t span24_frames = 0;
  std::uint64_t span24_predictions = 0;
  std::uint64_t span24_reinvested_bits = 0;
  std::uint64_t total_bytes = 0;
  std::uint32_t smallest = 65535;
  std::uint32_t largest = 0;
  std::uint64_t padding = 0;
};

// Fills `pcm` (two channels in coding order) with the next `count` sample
// frames.
using StereoReader = std::function<void(std::size_t count, std::vector<std::vector<double>>& pcm)>;

void refuse_unavailable_paths(const EncoderOptions& options) {
  if (options.span24Given) {
    throw std::runtime_error("--experimental-span24 is not available in this version yet");
  }
  if (options.productionCandidate) {
    throw std::runtime_error("--production-candidate is not available in this version yet");
  }
}

// libstdc++ hands every write of 1 KB or more straight to the system, past
// the stream's buffer. A frame is written in smaller pieces so that frames
// collect in the buffer and reach the file in large blocks; on failure the
// frames written before stay in the stream and are flushed when it closes.
void write_frame_bytes(std::ostream& out, const std::vector<std::uint8_t>& bytes) {
  constexpr std::size_t kPiece = 1000;
  for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
    const std::size_t n = std::min(kPiece, bytes.size() - at);
    out.write(reinterpret_cast<const char*>(bytes.data() + at), static_cast<std::streamsize>(n));
  }
  if (!out) throw std::runtime_error("failed writing DTS output");
}

std::string fixed2(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.2f", value);
  return text;
}

StereoSummary run_frames(std::ostream& out, std::uint32_t sample_rate, std::uint64_t total_frames,
                         const EncoderOptions& options, const StereoReader& read) {
  StereoSummary summary;
  CbrFrameSizer sizer =
      make_cbr_frame_sizer(static_cast<int>(sample_rate), static_cast<int>(options.bitrate), kFrameSamples);
  // The banks are large (16 polyphase matrices each); keep them off the stack.
  auto banks = std::make_unique<QmfAnalysisBank[]>(2);
  LegacyEncoderConfig config;
  LegacyEncoderState state;
  const StreamParams stream{sample_rate, options.bitrate};
  std::vector<std::vector<double>> pcm(2);
  SubbandBlock subbands[2];

  for (std::uint64_t done = 0; done < total_frames;) {
    const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(kFrameSamples, total_frames - done));
    read(count, pcm);
    if (count < kFrameSamples) {
      for (auto& channel : pcm) channel.resize(kFrameSamples, 0.0);
      summary.padding = kFrameSamples - count;
    }
    for (int c = 0; c < 2; ++c) subbands[c] = analyse_frame(banks[c], pcm[c].data());
    const std::uint32_t frame_bytes = next_frame_bytes(sizer);
    summary.smallest = std::min(summary.smallest, frame_bytes);
    summary.largest = std::max(summary.largest, frame_bytes);

    const std::vector<const double*> channels = {subbands[0].samples.data(), subbands[1].samples.data()};
    const DispatchedFrame made =
        dispatch_stereo_frame(channels, kStereoAmode, stream, frame_bytes, config, state, options.productionCandidate);
    const auto& bytes = made.frame.bytes;
    write_frame_bytes(out, bytes);
    summary.total_bytes += bytes.size();
    ++summary.frames;
    if (made.kind == FrameEncoderKind::span24) {
      ++summary.span24_frames;
      summary.span24_predictions += made.span24_predictions;
      summary.span24_reinvested_bits += made.span24_reinvested_bits;
    } else {
      ++summary.legacy_frames;
    }
    done += count;
  }
  if (summary.frames == 0) {
    // No frame was made: report the size frames of this stream would have.
    summary.smallest = summary.largest = sizer.base_bytes;
  }
  return summary;
}

void print_summary(const StereoSummary& s, std::uint32_t sample_rate, const std::string& format_name,
                   std::uint64_t total_frames, const std::string& label, const EncoderOptions& options) {
  std::ostream& o = std::cout;
  o << "Input: " << sample_rate << " Hz, " << format_name << ", stereo, " << total_frames << " samples (" << label
    << ")\n";
  o << "Output: " << options.bitrate << " bit/s nominal, ";
  if (s.smallest == s.largest) {
    o << s.smallest;
  } else {
    o << s.smallest << "-" << s.largest;
  }
  o << " bytes/frame, " << s.frames << " DTS frames\n";
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
  if (s.frames > 0) {
    const double realized = static_cast<double>(s.total_bytes) * 8.0 * static_cast<double>(sample_rate) /
                            (static_cast<double>(s.frames) * static_cast<double>(kFrameSamples));
    o << "Realized average bitrate: " << fixed2(realized) << " bit/s\n";
  }
  if (s.span24_frames > 0) {
    o << "Span24 frames: " << s.span24_frames << ", predictions: " << s.span24_predictions
      << ", reinvested bits: " << s.span24_reinvested_bits << "\n";
  }
  if (s.padding != 0) o << "Final frame zero-padded by " << s.padding << " samples/channel\n";
  o.flush();
}

}  // namespace

void encode_stereo_stream(std::istream& in, std::ostream& out, const PcmSourceInfo& info,
                          const EncoderOptions& options) {
  refuse_unavailable_paths(options);
  const std::uint64_t frame_size = frame_bytes(info);
  const std::uint64_t total = frame_count(info);
  std::vector<std::uint8_t> bytes(kFrameSamples * frame_size);
  const StereoReader read = [&](std::size_t count, std::vector<std::vector<double>>& pcm) {
    const auto wanted = static_cast<std::streamsize>(count * frame_size);
    in.read(reinterpret_cast<char*>(bytes.data()), wanted);
    if (in.gcount() != wanted) throw std::runtime_error("unexpected end of PCM input");
    deinterleave_into(bytes.data(), count, info.format, info.layout, info.source_order, pcm);
    if (pcm.size() != 2 || pcm[0].size() != count || pcm[1].size() != count) {
      throw std::runtime_error("internal stereo PCM mapping failure");
    }
  };
  const StereoSummary summary = run_frames(out, info.sample_rate, total, options, read);
  print_summary(summary, info.sample_rate, std::string(sample_format_name(info.format)), total, input_label(info),
                options);
}

void encode_stereo_memory(std::ostream& out, const PcmBuffer& buffer, std::uint32_t sample_rate,
                          const EncoderOptions& options, const std::string& label) {
  if (buffer.channels.size() != 2) throw std::runtime_error("stereo memory input requires 2 channels");
  if (buffer.channels[0].size() != buffer.channels[1].size()) {
    throw std::runtime_error("stereo channel length mismatch");
  }
  refuse_unavailable_paths(options);
  const std::uint64_t total = buffer.channels[0].size();
  std::uint64_t position = 0;
  const StereoReader read = [&](std::size_t count, std::vector<std::vector<double>>& pcm) {
    for (int c = 0; c < 2; ++c) {
      const auto first = buffer.channels[c].begin() + static_cast<std::ptrdiff_t>(position);
      pcm[c].assign(first, first + static_cast<std::ptrdiff_t>(count));
    }
    position += count;
  };
  const StereoSummary summary = run_frames(out, sample_rate, total, options, read);
  print_summary(summary, sample_rate, std::to_string(buffer.bits_per_sample) + "-bit", total, label, options);
}

}  // namespace tavrin
