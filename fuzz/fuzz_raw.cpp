// The raw PCM reader: a description chosen by the first bytes, the rest as
// audio, read as a file and as a pipe.
#include <array>
#include <stdexcept>

#include "fuzz_input.h"
#include "input/pcm_frames.h"
#include "input/raw.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tavrin;
  fuzz::Bytes bytes{data, size};
  const std::uint8_t shape = bytes.take();
  const std::array<const char*, 7> layouts = {"2.0", "stereo", "3.0", "4.0", "5.0", "5.1", "7.1"};
  const std::array<SampleFormat, 4> formats = {SampleFormat::s16le, SampleFormat::s24le, SampleFormat::s32le,
                                               SampleFormat::f32le};
  const std::array<std::uint32_t, 3> rates = {44100, 48000, 96000};
  RawPcmDescription description;
  description.format = formats[shape & 3];
  description.sample_rate = rates[(shape >> 2) % rates.size()];
  if (const auto layout = parse_layout_name(layouts[(shape >> 4) % layouts.size()])) description.layout = *layout;
  const std::string audio = bytes.rest();
  try {
    const bool pipe = (shape & 0x80) != 0;
    const PcmSourceInfo info = pipe ? open_raw_stream(description) : open_raw(audio.size(), description);
    fuzz::ForwardOnly buffer(audio);
    std::istream in(&buffer);
    std::size_t samples = 0;
    read_stream_frames(in, info, [&samples](PcmFrame& frame) { samples += frame.count; });
    if (samples * frame_bytes(info) != audio.size()) __builtin_trap();
  } catch (const std::runtime_error&) {
  }
  return 0;
}
