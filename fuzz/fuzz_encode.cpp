// A whole encode of a short input: any layout, rate and bit rate, and any
// sample values (NaN and infinities included in float PCM), or a stereo
// input through the matrix decoder and bass management into 5.1. The stream
// must have exactly the frames and bytes the sizer promised, each frame
// starting with the sync word; the sanitizers watch the arithmetic.
#include <array>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "app/drivers.h"
#include "app/frame_loop.h"
#include "fuzz_input.h"
#include "input/raw.h"
#include "matrix/matrix_decoder.h"

namespace {

// Counts the frames, checking each one's sync word and size.
std::uint64_t count_frames(const std::string& stream) {
  std::uint64_t frames = 0;
  for (std::size_t at = 0; at < stream.size(); ++frames) {
    if (stream.compare(at, 4, "\x7F\xFE\x80\x01") != 0) return false;
    // FSIZE: 14 bits after the sync word, the frame header's first fields.
    const auto byte = [&](std::size_t i) { return static_cast<unsigned>(static_cast<std::uint8_t>(stream[at + i])); };
    const unsigned fsize = (((byte(5) & 0x03) << 12) | (byte(6) << 4) | (byte(7) >> 4)) + 1;
    if (fsize < 96 || at + fsize > stream.size()) __builtin_trap();
    at += fsize;
  }
  return frames;
}

void check_frames(const std::string& stream, std::uint64_t samples) {
  if (count_frames(stream) != (samples + 1023) / 1024) __builtin_trap();
}

// The matrix path reads its input once per pass; every pass must see the
// same audio.
void encode_through_matrix(const tavrin::PcmSourceInfo& info, const std::string& audio,
                           tavrin::EncoderOptions options, std::uint8_t steer) {
  using namespace tavrin;
  options.matrixDecode = true;
  options.bassManagement = (steer & 1) != 0;
  options.rearDelayMs = (steer >> 1) % 41;
  options.lfeGainDb = options.bassManagement ? static_cast<double>((steer >> 1) % 19) - 12.0 : 0.0;
  options.crossoverHz = 40.0 + (steer >> 2) % 81;
  std::uint64_t samples = 0;
  PcmInput input;
  input.layout = info.layout;
  input.sample_rate = info.sample_rate;
  input.label = "raw PCM";
  input.read = [&](const PcmFrameSink& sink) {
    std::istringstream in(audio);
    samples = 0;
    read_stream_frames(in, info, [&](PcmFrame& frame) {
      samples += frame.count;
      sink(frame);
    });
  };
  std::ostringstream out;
  ProgressState progress;
  progress.suppressed = true;
  encode_matrix(out, input, options, progress);
  check_frames(out.str(), samples + matrix_delay_samples(info.sample_rate, options.rearDelayMs));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tavrin;
  fuzz::Bytes bytes{data, size};
  const std::uint8_t shape = bytes.take();
  const std::uint8_t steer = bytes.take();
  const bool matrix = ((shape >> 3) & 7) >= 5;  // layout numbers past the five
  const std::array<const char*, 5> layouts = {"2.0", "3.0", "4.0", "5.0", "5.1"};
  const std::array<SampleFormat, 4> formats = {SampleFormat::f32le, SampleFormat::s16le, SampleFormat::s24le,
                                               SampleFormat::s32le};
  const std::array<std::uint32_t, 4> bitrates = {768000, 1024000, 1152000, 1411200};
  RawPcmDescription description;
  description.format = formats[shape & 3];
  description.sample_rate = (shape & 4) != 0 ? 44100 : 48000;
  description.layout = *parse_layout_name(matrix ? "2.0" : layouts[(shape >> 3) % layouts.size()]);
  EncoderOptions options;
  options.bitrate = bitrates[(shape >> 6) & 3];

  const PcmSourceInfo info = open_raw_stream(description);
  if (matrix) {
    std::cout.setstate(std::ios::failbit);  // the driver's summary
    std::string audio = bytes.rest();
    audio.resize(audio.size() / frame_bytes(info) * frame_bytes(info));  // whole sample frames only
    encode_through_matrix(info, audio, options, steer);
    return 0;
  }
  fuzz::ForwardOnly buffer(bytes.rest());
  std::istream in(&buffer);
  std::ostringstream out;
  EncodeLoop loop = open_encode_loop(out, info.layout, info.sample_rate, options);
  try {
    read_stream_frames(in, info, [&loop](PcmFrame& frame) { encode_pcm_frame(loop, frame); });
  } catch (const std::runtime_error& e) {
    // Only a partial sample frame at the end may stop the encode.
    if (std::string(e.what()) != kRawPartialFrame) __builtin_trap();
    return 0;
  }
  const LoopTotals totals = finish_encode_loop(loop);
  if (out.str().size() != totals.total_bytes || totals.frames != count_frames(out.str())) __builtin_trap();
  check_frames(out.str(), totals.samples);
  return 0;
}
