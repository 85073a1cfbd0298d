// Writes the benchmarks' programme material as a 24-bit WAVE file, for the
// quality script and for trying the encoder by hand:
//   make_programme <out.wav> <channels: 2 or 6> <rate> <seconds>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "programme.h"

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: make_programme <out.wav> <channels: 2 or 6> <rate> <seconds>\n");
    return 2;
  }
  const int channels = std::atoi(argv[2]);
  if (channels != 2 && channels != 6) {
    std::fprintf(stderr, "make_programme: channels must be 2 or 6\n");
    return 2;
  }
  try {
    bench::write_programme_wav(argv[1], static_cast<unsigned>(channels), static_cast<std::uint32_t>(std::atoi(argv[3])),
                               static_cast<unsigned>(std::atoi(argv[4])));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "make_programme: %s\n", e.what());
    return 1;
  }
  return 0;
}
