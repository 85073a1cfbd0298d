#include "input/flac.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/dynamic_library.h"
#include "platform/names.h"

namespace tavrin {
namespace {

// libFLAC's objects, only ever passed back to it by pointer.
struct FlacDecoder;
struct FlacFrame;
struct FlacMetadata;

// The C types behind libFLAC's names: FLAC__bool is int, and its enums (init
// and write status, error status) travel as int.
using FlacBool = int;
constexpr int kWriteContinue = 0;
constexpr int kWriteAbort = 1;

using WriteCallback = int (*)(const FlacDecoder*, const FlacFrame*, const std::int32_t* const buffer[], void*);
using MetadataCallback = void (*)(const FlacDecoder*, const FlacMetadata*, void*);
using ErrorCallback = void (*)(const FlacDecoder*, int, void*);

// The entry points we use, declared by hand so that no libFLAC header or
// import library is needed to build; their C signatures are the same in
// every release from 1.2.1 on.
struct FlacLibrary {
  DynamicLibrary library;
  FlacDecoder* (*decoder_new)() = nullptr;
  void (*decoder_delete)(FlacDecoder*) = nullptr;
  FlacBool (*set_md5_checking)(FlacDecoder*, FlacBool) = nullptr;
  int (*init_file)(FlacDecoder*, const char*, WriteCallback, MetadataCallback, ErrorCallback, void*) = nullptr;
  FlacBool (*process_until_end_of_stream)(FlacDecoder*) = nullptr;
  FlacBool (*finish)(FlacDecoder*) = nullptr;
  std::uint32_t (*get_channels)(const FlacDecoder*) = nullptr;
  std::uint32_t (*get_bits_per_sample)(const FlacDecoder*) = nullptr;
  std::uint32_t (*get_sample_rate)(const FlacDecoder*) = nullptr;
  std::uint32_t (*get_blocksize)(const FlacDecoder*) = nullptr;
};

[[noreturn]] void fail(const std::string& message) { throw std::runtime_error(message); }

DynamicLibrary open_flac_library() {
  const std::string file(kFlacLibraryFile);
  std::vector<std::filesystem::path> candidates;
  // Tests aim this at a folder of their own to stand in for a missing or a
  // broken library without touching the system's copy.
  if (const char* folder = std::getenv("TAVRIN_DTS_TEST_FLAC_DIR")) {
    // An empty value still names a folder: a bare file name would reach the
    // system loader's search.
    candidates.push_back(std::filesystem::path(*folder != '\0' ? folder : ".") / file);
  } else {
    // A copy shipped with the program wins over whatever the system has.
    candidates.push_back(executable_path().parent_path() / file);
#ifndef _WIN32
    // Installed releases whose entry points keep the signatures above,
    // newest first.
    for (const char* soname : {"libFLAC.so.14", "libFLAC.so.12", "libFLAC.so.8"}) candidates.emplace_back(soname);
#endif
  }
  for (const std::filesystem::path& candidate : candidates) {
    if (DynamicLibrary library = open_library(candidate)) return library;
  }
  fail("FLAC input requires " + std::string(kFlacLibraryPlace));
}

template <class Function>
void bind(const DynamicLibrary& library, Function& slot, const char* name) {
  const LibraryFunction address = find_function(library, name);
  if (address == nullptr) fail(std::string(kFlacLibraryFile) + " missing symbol: " + name);
  slot = reinterpret_cast<Function>(address);
}

// A library missing any entry point is released on the way out by `flac`'s
// own destructor.
FlacLibrary load_flac_library() {
  FlacLibrary flac{.library = open_flac_library()};
  bind(flac.library, flac.decoder_new, "FLAC__stream_decoder_new");
  bind(flac.library, flac.decoder_delete, "FLAC__stream_decoder_delete");
  bind(flac.library, flac.set_md5_checking, "FLAC__stream_decoder_set_md5_checking");
  bind(flac.library, flac.init_file, "FLAC__stream_decoder_init_file");
  bind(flac.library, flac.process_until_end_of_stream, "FLAC__stream_decoder_process_until_end_of_stream");
  bind(flac.library, flac.finish, "FLAC__stream_decoder_finish");
  bind(flac.library, flac.get_channels, "FLAC__stream_decoder_get_channels");
  bind(flac.library, flac.get_bits_per_sample, "FLAC__stream_decoder_get_bits_per_sample");
  bind(flac.library, flac.get_sample_rate, "FLAC__stream_decoder_get_sample_rate");
  bind(flac.library, flac.get_blocksize, "FLAC__stream_decoder_get_blocksize");
  return flac;
}

// finish() then delete() on every way out of a decode. finish() answers
// whether the MD5 matched; a stale checksum (say, after a tag editor went
// wrong) must not stop an encode whose frames all passed their CRCs, so the
// answer is dropped.
struct DecoderGuard {
  const FlacLibrary& flac;
  FlacDecoder* decoder;
  ~DecoderGuard() {
    flac.finish(decoder);
    flac.decoder_delete(decoder);
  }
};

std::optional<ChannelLayout> layout_for_channels(unsigned channels) {
  constexpr std::array<std::string_view, 5> kNames = {"2.0", "3.0", "4.0", "5.0", "5.1"};
  if (channels < 2 || channels > 6) return std::nullopt;
  return parse_layout_name(kNames[channels - 2]);
}

// Everything one pass needs inside libFLAC's callbacks.
struct Decode {
  const FlacLibrary& flac;
  const FlacStreamInfo* expected = nullptr;  // encoding pass only
  const PcmFrameSink* sink = nullptr;        // encoding pass only
  FlacStreamInfo info{};                     // set by the first block; the count grows with every block
  unsigned channels = 0;                     // 0 until the first block arrives
  std::array<std::size_t, 6> slot_of{};      // FLAC channel -> coding slot
  double scale = 0.0;                        // 2^-(bits-1)
  PcmFrame frame{};
  bool failed = false;
  // Nothing may unwind through libFLAC's C frames: a callback's exception
  // waits here until the processing call has returned.
  std::exception_ptr failure{};
};

// The first block fixes the stream's shape. Later blocks must keep it: a
// frame with fewer channels than the first would leave the channel map
// reading past libFLAC's buffers.
bool accept_block(Decode& decode, const FlacDecoder* decoder) {
  const unsigned channels = decode.flac.get_channels(decoder);
  const unsigned bits = decode.flac.get_bits_per_sample(decoder);
  const std::uint32_t rate = decode.flac.get_sample_rate(decoder);
  if (decode.channels != 0) {
    return channels == decode.channels && bits == decode.info.bits_per_sample && rate == decode.info.sample_rate;
  }
  if (bits < 4 || bits > 32 || (rate != 44100 && rate != 48000)) return false;
  std::optional<ChannelLayout> layout = layout_for_channels(channels);
  if (!layout) return false;
  if (decode.expected != nullptr &&
      (rate != decode.expected->sample_rate || bits != decode.expected->bits_per_sample ||
       layout->name != decode.expected->layout.name)) {
    return false;
  }
  const std::vector<SpeakerId> flac_order = default_source_order(layout->name);
  for (unsigned c = 0; c < channels; ++c) {
    const auto coding = std::find(layout->speakers.begin(), layout->speakers.begin() + channels, flac_order[c]);
    decode.slot_of[c] = static_cast<std::size_t>(coding - layout->speakers.begin());
  }
  decode.scale = std::ldexp(1.0, -static_cast<int>(bits - 1));
  decode.info.sample_rate = rate;
  decode.info.bits_per_sample = bits;
  decode.info.layout = std::move(*layout);
  decode.frame.channels.assign(channels, std::vector<double>(kPcmFrameSamples));
  decode.channels = channels;
  return true;
}

// The vectors go out `count` long, as the sink expects; the sink may resize
// or keep using them, so they are put back to full length afterwards, which
// allocates nothing once they have grown.
void hand_over(Decode& decode) {
  PcmFrame& frame = decode.frame;
  for (std::vector<double>& channel : frame.channels) channel.resize(frame.count);
  (*decode.sink)(frame);
  frame.channels.resize(decode.channels);
  for (std::vector<double>& channel : frame.channels) channel.resize(kPcmFrameSamples);
  frame.count = 0;
}

void collect(Decode& decode, const std::int32_t* const buffer[], std::size_t block) {
  PcmFrame& frame = decode.frame;
  for (std::size_t done = 0; done < block;) {
    const std::size_t take = std::min(block - done, kPcmFrameSamples - frame.count);
    for (unsigned c = 0; c < decode.channels; ++c) {
      const std::int32_t* in = buffer[c] + done;
      double* out = frame.channels[decode.slot_of[c]].data() + frame.count;
      for (std::size_t i = 0; i < take; ++i) out[i] = in[i] * decode.scale;
    }
    frame.count += take;
    done += take;
    if (frame.count == kPcmFrameSamples) hand_over(decode);
  }
}

int on_write(const FlacDecoder* decoder, const FlacFrame*, const std::int32_t* const buffer[], void* context) {
  Decode& decode = *static_cast<Decode*>(context);
  try {
    // Once libFLAC has reported an error the pass is lost; stop rather than
    // feed the sink what follows.
    if (decode.failed || !accept_block(decode, decoder)) {
      decode.failed = true;
      return kWriteAbort;
    }
    const std::uint32_t block = decode.flac.get_blocksize(decoder);
    // A file that grew since the checking pass is caught before its surplus
    // reaches the sink.
    if (decode.expected != nullptr && block > decode.expected->total_samples - decode.info.total_samples) {
      decode.failed = true;
      return kWriteAbort;
    }
    decode.info.total_samples += block;
    if (decode.sink != nullptr) collect(decode, buffer, block);
    return kWriteContinue;
  } catch (...) {
    decode.failure = std::current_exception();
    return kWriteAbort;
  }
}

void on_metadata(const FlacDecoder*, const FlacMetadata*, void*) {}

// Only noted: libFLAC resynchronises by itself, and newer releases report
// kinds of errors older ones never had, so none is told apart.
void on_error(const FlacDecoder*, int, void* context) { static_cast<Decode*>(context)->failed = true; }

FlacStreamInfo decode_file(const std::string& path, const FlacStreamInfo* expected, const PcmFrameSink* sink) {
  const FlacLibrary flac = load_flac_library();
  Decode decode{.flac = flac, .expected = expected, .sink = sink};
  FlacDecoder* const decoder = flac.decoder_new();
  if (decoder == nullptr) fail("libFLAC decoder allocation failed");
  const DecoderGuard guard{flac, decoder};
  flac.set_md5_checking(decoder, 1);
  if (flac.init_file(decoder, path.c_str(), on_write, on_metadata, on_error, &decode) != 0) {
    fail("libFLAC could not open input");
  }
  // A damaged frame still lets processing run to the end and return true;
  // only the error callback tells.
  const bool processed = flac.process_until_end_of_stream(decoder) != 0;
  if (decode.failure) std::rethrow_exception(decode.failure);
  if (!processed || decode.failed) fail("libFLAC decode failed");
  if (decode.channels == 0) fail("FLAC contained no audio frames");
  if (!layout_for_channels(decode.channels)) fail("FLAC channel count is unsupported");
  // A file that shrank since the checking pass.
  if (expected != nullptr && decode.info.total_samples != expected->total_samples) fail("libFLAC decode failed");
  if (sink != nullptr && decode.frame.count > 0) hand_over(decode);
  return decode.info;
}

}  // namespace

FlacStreamInfo check_flac_file(const std::string& path) { return decode_file(path, nullptr, nullptr); }

void read_flac_frames(const std::string& path, const FlacStreamInfo& expected, const PcmFrameSink& sink) {
  decode_file(path, &expected, &sink);
}

}  // namespace tavrin
