// A whole encode of a short input: any layout, rate and bit rate, and any
// sample values (NaN and infinities included in float PCM). The stream
// must have exactly the frames and bytes the sizer promised, each frame
// starting with the sync word; the sanitizers watch the arithmetic.
#include <array>
#include <sstream>
#include <stdexcept>

#include "app/frame_loop.h"
#include "fuzz_input.h"
#include "input/raw.h"

namespace {

bool frames_well_formed(const std::string& stream, const tavrin::LoopTotals& totals) {
  if (stream.size() != totals.total_bytes) return false;
  const std::uint64_t frames = totals.samples == 0 ? 0 : (totals.samples + 1023) / 1024;
  if (totals.frames != frames) return false;
  for (std::size_t at = 0; at < stream.size();) {
    if (stream.compare(at, 4, "\x7F\xFE\x80\x01") != 0) return false;
    // FSIZE: 14 bits after the sync word, the frame header's first fields.
    const auto byte = [&](std::size_t i) { return static_cast<unsigned>(static_cast<std::uint8_t>(stream[at + i])); };
    const unsigned fsize = (((byte(5) & 0x03) << 12) | (byte(6) << 4) | (byte(7) >> 4)) + 1;
    if (fsize < 96 || at + fsize > stream.size()) return false;
    at += fsize;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tavrin;
  fuzz::Bytes bytes{data, size};
  const std::uint8_t shape = bytes.take();
  const std::array<const char*, 5> layouts = {"2.0", "3.0", "4.0", "5.0", "5.1"};
  const std::array<SampleFormat, 4> formats = {SampleFormat::f32le, SampleFormat::s16le, SampleFormat::s24le,
                                               SampleFormat::s32le};
  const std::array<std::uint32_t, 4> bitrates = {768000, 1024000, 1152000, 1411200};
  RawPcmDescription description;
  description.format = formats[shape & 3];
  description.sample_rate = (shape & 4) != 0 ? 44100 : 48000;
  description.layout = *parse_layout_name(layouts[(shape >> 3) % layouts.size()]);
  EncoderOptions options;
  options.bitrate = bitrates[(shape >> 6) & 3];

  const PcmSourceInfo info = open_raw_stream(description);
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
  if (!frames_well_formed(out.str(), finish_encode_loop(loop))) __builtin_trap();
  return 0;
}
