// The real program, run as a user runs it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "app/help.h"
#include "support/decoders.h"
#include "support/wav_writer.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;

// A pass over 3000 samples: its first block, then its end.
std::string progress_lines(const std::string& label) {
  const std::string pad(15 - label.size(), ' '), clock = "  elapsed 00:00:00  ETA 00:00:00";
  return "\r" + label + pad + " [##########------------------]  34.1%" + clock + "\r" + label + pad +
         " [############################] 100.0%" + clock + "\n";
}

// Option errors come before the output is created; later ones leave it behind
// with whatever frames were finished.
TEST(Cli, StatusesOutputAndMessages) {
  const fs::path dir = test::fresh_test_dir("cli");
  const auto path = [&](const char* name) { return (dir / name).string(); };
  const std::string in = path("missing.wav"), out = path("out.dts"), bad_out = path("no/such/out.dts");
  const std::string stereo = path("stereo.wav"), five = path("five.wav"), help = help_text(false);
  write_wav_file(stereo, {std::vector<double>(3000, 0.25), std::vector<double>(3000, -0.25)}, 48000,
                 SampleFormat::s16le);
  write_wav_file(five, std::vector<std::vector<double>>(6, {0}), 48000, SampleFormat::s16le, 0x3Fu);
  auto truncated = build_wav_bytes({std::vector<double>(4000), std::vector<double>(4000)}, 48000, SampleFormat::s16le);
  truncated.resize(truncated.size() - 100);  // less audio than the header promises
  test::write_bytes(dir / "truncated.wav", truncated);
  for (const char* name : {"song.FLAC", "x.flac.wav"}) test::write_bytes(dir / name, {0});
  // Arguments, status, standard output, error after "Tavrin-DTS: ", output file size (-1: none).
  std::vector<std::tuple<std::vector<std::string>, int, std::string, std::string, long>> cases = {
      {{}, 2, help, "", -1},
      {{"--Version"}, 2, help, "", -1},
      {{"--help"}, 0, help, "", -1},
      {{"--help-dev"}, 0, help_text(true), "", -1},
      {{"--version"}, 0, "Tavrin-DTS 1.0.1.0\n", "", -1},
      {{in, out, "--help"}, 0, help, "", -1},
      {{in, bad_out}, 1, "", "cannot create output DTS: " + bad_out, -1},
      {{in, out, "--bitrate", "96"}, 1, "", "unsupported bitrate; use 768, 1024, 1152 or 1411", -1},
      {{in, out, "--quiet"}, 1, "", "cannot open input: " + in, 0},
      {{path("song.FLAC"), out, "--raw", "--pcm-format", "s16le", "--sample-rate", "48000", "--layout", "2.0"}, 1, "",
       "--raw cannot be used with FLAC input", 0},
      {{path("song.FLAC"), out}, 1, "", "libFLAC decode failed", 0},
      {{path("x.flac.wav"), out}, 1, "", "unexpected end of PCM/WAVE file", 0},  // only the last extension counts
      {{five, out, "--legacy"}, 1, "", "--legacy, --production-candidate and --experimental-span24 are stereo-only", 0},
      {{stereo, out, "--production-candidate"}, 0,
       "Input: 48000 Hz, s16le, stereo, 3000 samples (WAVE)\n"
       "Output: 768000 bit/s nominal, 2048 bytes/frame, 3 DTS frames\n"
       "Path: PRODUCTION-CANDIDATE 24+8 rate-aware\n"
       "Realized average bitrate: 768000.00 bit/s\n"
       "Span24 frames: 3, predictions: 41, reinvested bits: 1842\n"
       "Final frame zero-padded by 72 samples/channel\n",
       "", 3 * 2048},
      // The analysis passes take far less than half a second, so their
      // clock texts are fixed.
      {{stereo, out, "--matrix-decode"}, 0,
       std::string(kBanner) + "\n"
       "Input: 48000 Hz, 2 ch (2.0, WAVE)\n"
       "Mode:       Matrix surround decode -> 5.1 DTS Core\n"
       "DTS:        768 kbps Core\n" +
       progress_lines("Matrix analysis") + progress_lines("Encoding") +
       "Matrix:     streaming stereo -> L/C/R/S discrete bed; LFE silent, max C steer 0.000, max S steer 0.969, "
       "rear delay 20 ms\n"
       "Processing: stateful streaming matrix preprocess -> bed gain 0.00 dB -> 5.1 DTS Core\n"
       "DTS:        48000 Hz\n"
       "Streaming: 768 kbps CBR Core, AMODE 9 + LFF2\n"
       "Frames:     4 DTS frame(s)\n"
       "Realized: 768.00 kbps average\n"
       "Bands:      active min/avg/max 194/228.75/247\n"
       "Padding: 136 final sample(s)/channel\n",
       "", 4 * 2048},
      {{five, out, "--matrix-decode", "--dev-matrix-memory-reference"}, 1, "",
       "--matrix-decode requires 2-channel stereo input", 0},
      {{path("truncated.wav"), out}, 1, "", "unexpected end of PCM input", 3 * 2048},
      {{stereo, out}, 0,
       "Input: 48000 Hz, s16le, stereo, 3000 samples (WAVE)\n"
       "Output: 768000 bit/s nominal, 2048 bytes/frame, 3 DTS frames\n"
       "Path: legacy ADPCM rate\n"
       "Realized average bitrate: 768000.00 bit/s\n"
       "Final frame zero-padded by 72 samples/channel\n",
       "", 3 * 2048},
      {{stereo, out, "-q"}, 0, "", "", 3 * 2048},
  };
  // A full disk: the failure must come before any line that claims success.
  if (fs::is_character_file("/dev/full")) cases.push_back({{stereo, "/dev/full"}, 1, "", "failed writing DTS output", -1});
  for (const auto& [args, status, output, error, bytes] : cases) {
    SCOPED_TRACE((args.empty() ? "" : args.back()) + " " + error);
    fs::remove(out);
    const auto r = test::run_tavrin(args);
    EXPECT_EQ(r.exit_status, status);
    EXPECT_EQ(r.out, output);
    EXPECT_EQ(r.err, error.empty() ? "" : "Tavrin-DTS: " + error + "\n");
    EXPECT_EQ(fs::exists(out) ? static_cast<long>(fs::file_size(out)) : -1, bytes);
  }
}

}  // namespace
}  // namespace tavrin
