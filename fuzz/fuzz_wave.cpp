// The WAVE/RF64 reader and the frame reader behind it, on a file and on a
// pipe: any bytes must end in a description or one of the reader's
// messages, never in a crash or an allocation sized by a header.
#include <stdexcept>

#include "fuzz_input.h"
#include "input/pcm_frames.h"
#include "input/wave.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tavrin::fuzz::Bytes bytes{data, size};
  const bool pipe = (bytes.take() & 1) != 0;
  tavrin::fuzz::ForwardOnly forward_only(bytes.rest());
  std::istringstream seekable(bytes.rest());
  std::istream forward(&forward_only);
  std::istream& in = pipe ? forward : seekable;
  try {
    const tavrin::PcmSourceInfo info = tavrin::open_wave(in);
    tavrin::read_stream_frames(in, info, [](tavrin::PcmFrame& frame) {
      if (frame.count == 0 || frame.count > tavrin::kPcmFrameSamples) __builtin_trap();
    });
  } catch (const std::runtime_error&) {
  }
  return 0;
}
