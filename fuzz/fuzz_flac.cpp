// FLAC through libFLAC (loaded at run time, as the program does): the
// checking pass, and the encoding pass when the check accepts the file.
// Every failure must be one of the messages the reader gives for a file's
// contents.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

#include "input/flac.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The reader takes a path; one scratch file per fuzzing process.
  static const std::string path = "/tmp/tavrin-fuzz-flac-" + std::to_string(getpid()) + ".flac";
  {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  try {
    const tavrin::FlacStreamInfo info = tavrin::check_flac_file(path);
    std::uint64_t samples = 0;
    tavrin::read_flac_frames(path, info, [&samples](tavrin::PcmFrame& frame) { samples += frame.count; });
    if (samples != info.total_samples) __builtin_trap();
  } catch (const std::runtime_error& e) {
    const std::string message = e.what();
    if (message != "libFLAC decode failed" && message != "FLAC contained no audio frames" &&
        message != "FLAC channel count is unsupported") {
      __builtin_trap();
    }
  }
  std::remove(path.c_str());
  return 0;
}
