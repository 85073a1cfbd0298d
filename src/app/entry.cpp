#include "app/entry.h"

#include <cctype>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/drivers.h"
#include "app/help.h"
#include "app/options.h"
#include "app/progress.h"
#include "input/flac.h"
#include "input/pcm_frames.h"
#include "input/raw.h"
#include "input/wave.h"
#include "platform/clock.h"
#include "platform/command_line.h"
#include "platform/files.h"

namespace tavrin {

namespace {

constexpr std::size_t kStreamBufferBytes = std::size_t{1} << 18;

// The extension alone decides; contents are never sniffed.
bool is_flac_name(const std::string& path) {
  const auto dot = path.rfind('.');
  if (dot == std::string::npos || dot + 1 == path.size()) return false;
  std::string ext = path.substr(dot);
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext == ".flac";
}

bool has_bass_options(const EncoderOptions& o) {
  return o.bassManagement || o.thx || o.crossoverGiven || o.lfeGainDb != 0.0;
}

std::uint64_t stream_size(std::istream& in) {
  in.seekg(0, std::ios::end);
  const auto end = in.tellg();
  in.seekg(0, std::ios::beg);
  if (end < 0 || !in) throw std::runtime_error("cannot read input size");
  return static_cast<std::uint64_t>(end);
}

PcmSourceInfo describe_input(std::istream& in, const EncoderOptions& options, bool pipe) {
  if (!options.raw) return open_wave(in);
  RawPcmDescription description;
  description.sample_rate = static_cast<std::uint32_t>(options.sampleRate);
  description.format = options.pcmFormat;
  description.layout = options.layout;
  if (pipe) return open_raw_stream(description);
  PcmSourceInfo info = open_raw(stream_size(in), description);
  in.seekg(0, std::ios::beg);
  return info;
}

// The developer reference path of the matrix decoder: the whole payload in
// memory, decoded in one piece. It grows with the audio actually read, never
// with a size a header claims.
PcmBuffer read_whole_pcm(std::istream& in, const PcmSourceInfo& info) {
  PcmBuffer buffer;
  buffer.sample_rate = info.sample_rate;
  buffer.bits_per_sample = bytes_per_sample(info.format) * 8;
  buffer.layout = info.layout;
  buffer.channels.resize(info.layout.channel_count);
  read_stream_frames(in, info, [&buffer](PcmFrame& frame) {
    for (std::size_t c = 0; c < buffer.channels.size(); ++c) {
      buffer.channels[c].insert(buffer.channels[c].end(), frame.channels[c].begin(),
                                frame.channels[c].begin() + static_cast<std::ptrdiff_t>(frame.count));
    }
  });
  return buffer;
}

// Where the audio comes from. Checked before the output is created: an
// output that names the input would otherwise be truncated before a byte
// of it was read.
struct InputSource {
  bool standard_input = false;  // the path "-"
  bool pipe = false;            // read to its end, never sought
};

InputSource check_input(const std::string& input_path, const std::string& output_path) {
  InputSource source;
  source.standard_input = input_path == "-";
  const std::filesystem::path input = path_from_utf8(input_path);
  const std::filesystem::path output = path_from_utf8(output_path);
  const FileKind kind = source.standard_input ? standard_input_kind() : file_kind(input);
  const std::string shown = source.standard_input ? "standard input" : input_path;
  switch (kind) {
    case FileKind::missing:  // the open reports it
    case FileKind::regular:
      break;
    case FileKind::pipe:
    case FileKind::socket:
      source.pipe = true;
      break;
    default:
      throw std::runtime_error("input is " + std::string(describe_file_kind(kind)) +
                               ", not an audio file or pipe: " + shown);
  }
  const bool same = source.standard_input ? standard_input_is(output) : same_file(input, output);
  if (same) throw std::runtime_error("output would overwrite the input: " + output_path);
  return source;
}

// FLAC is decoded twice and never held whole: a checking pass reports
// every failure before the output gets a single frame, then the encoding
// pass feeds the frame loop.
// `plain` is the progress of the stereo and multichannel encodes, null when
// they draw none; the matrix path always draws into `progress`.
void run_flac(const std::string& input_path, std::ostream& out, const EncoderOptions& options,
              ProgressState& progress, ProgressState* plain) {
  if (options.raw) throw std::runtime_error("--raw cannot be used with FLAC input");
  const FlacStreamInfo info = check_flac_file(input_path);
  if (options.matrixDecode) {
    encode_matrix_flac(out, input_path, info, options, progress);
  } else if (has_bass_options(options)) {
    throw std::runtime_error("bass-management options require --matrix-decode in Tavrin-DTS Phase91");
  } else if (info.layout.name == "2.0") {
    encode_stereo(out, flac_input(input_path, info), options, plain);
  } else {
    encode_multichannel(out, flac_input(input_path, info), options, plain);
  }
}

void run_stream(std::istream& in, std::ostream& out, const EncoderOptions& options, const InputSource& source,
                const std::string& shown_path, ProgressState& progress, ProgressState* plain) {
  const PcmSourceInfo info = describe_input(in, options, source.pipe);
  if (!validate_layout(info.layout)) throw std::runtime_error("unsupported channel layout");
  const std::string label = input_label(info);
  if (options.matrixDecode) {
    if (!options.devMatrixMemoryReference) {
      // Its analysis passes read the input again from the start.
      if (source.pipe && info.layout.name == "2.0") {
        throw std::runtime_error("--matrix-decode input must be a file, not a pipe: " + shown_path);
      }
      encode_matrix_stream(in, out, info, options, label, progress);
      return;
    }
    if (info.layout.name != "2.0") throw std::runtime_error("--matrix-decode requires 2-channel stereo input");
    const PcmBuffer buffer = read_whole_pcm(in, info);
    encode_matrix_memory(out, buffer, info.sample_rate, options, label);
    return;
  }
  if (info.layout.name == "2.0") {
    encode_stereo_stream(in, out, info, options, plain);
    return;
  }
  if (has_bass_options(options)) throw std::runtime_error("bass-management options require --matrix-decode");
  encode_multichannel_stream(in, out, info, options, plain);
}

int encode(int argc, char** argv) {
  const std::string input_path = argv[1];
  const std::string output_path = argv[2];
  const ParsedCommandLine parsed = parse_options(argc - 1, argv + 1);
  if (parsed.help != HelpRequest::none) {
    print_help(std::cout, parsed.help == HelpRequest::developer);
    return 0;
  }
  const EncoderOptions& options = parsed.options;
  // Every later write to standard output is dropped; errors still reach
  // standard error.
  if (options.quiet) std::cout.setstate(std::ios::failbit);
  ProgressState progress;
  progress.suppressed = options.quiet;
  // The plain encodes draw their progress line only for a person watching:
  // a file or a pipe gets the summary lines alone.
  ProgressState* const plain = standard_output_is_terminal() ? &progress : nullptr;

  const InputSource source = check_input(input_path, output_path);
  const bool flac = !source.standard_input && is_flac_name(input_path);
  // FLAC is read twice (a checking pass, then the encoding pass).
  if (flac && source.pipe) throw std::runtime_error("FLAC input must be a file, not a pipe: " + input_path);

  // Frames are collected in a large buffer and reach the file a few hundred
  // kilobytes at a time (see write_frame_bytes).
  std::vector<char> out_buffer(kStreamBufferBytes);
  std::ofstream out;
  out.rdbuf()->pubsetbuf(out_buffer.data(), static_cast<std::streamsize>(out_buffer.size()));
  out.open(path_from_utf8(output_path), std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot create output DTS: " + output_path);

  if (flac) {
    run_flac(input_path, out, options, progress, plain);
  } else if (source.standard_input) {
    use_binary_standard_input();
    run_stream(std::cin, out, options, source, "standard input", progress, plain);
  } else {
    // A frame is only a few kilobytes of PCM; a larger buffer saves a
    // system call per frame.
    std::vector<char> in_buffer(kStreamBufferBytes);
    std::ifstream in;
    in.rdbuf()->pubsetbuf(in_buffer.data(), static_cast<std::streamsize>(in_buffer.size()));
    in.open(path_from_utf8(input_path), std::ios::binary);
    if (!in) throw std::runtime_error("cannot open input: " + input_path);
    run_stream(in, out, options, source, input_path, progress, plain);
  }
  out.close();
  // Whatever the stream still held must reach the file too.
  if (out.fail()) throw std::runtime_error("failed writing DTS output");
  close_progress_line(progress, std::cout);
  return 0;
}

}  // namespace

int run_program(int argc, char** argv) {
  if (argc == 2) {
    const std::string word = argv[1];
    if (word == "--help" || word == "-h") {
      print_help(std::cout, false);
      return 0;
    }
    if (word == "--help-dev") {
      print_help(std::cout, true);
      return 0;
    }
    if (word == "--version") {
      std::cout << kVersionLine << '\n';
      return 0;
    }
    print_help(std::cout, false);
    return 2;
  }
  if (argc < 3) {
    print_help(std::cout, false);
    return 2;
  }
  try {
    return encode(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << "Tavrin-DTS: " << e.what() << '\n';
    return 1;
  } catch (...) {
    std::cerr << "Tavrin-DTS: unexpected internal error\n";
    return 1;
  }
}

}  // namespace tavrin
