// The real program, run as a user runs it: one-word forms, exit statuses,
// what is created when, and the error line.
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

test::CommandResult tavrin(std::vector<std::string> args) {
  args.insert(args.begin(), TAVRIN_BINARY);
  return test::run_command(args);
}

std::vector<std::vector<double>> stereo(std::size_t samples, double level) {
  return {std::vector<double>(samples, level), std::vector<double>(samples, -level)};
}

TEST(Cli, HelpAndVersion) {
  const fs::path dir = test::fresh_test_dir("cli-help");
  const std::string help = help_text(false);
  const std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases = {
      {{}, 2, help},
      {{"--help"}, 0, help},
      {{"-h"}, 0, help},
      {{"--help-dev"}, 0, help_text(true)},
      {{"--version"}, 0, "Tavrin-DTS 1.0.1.0\n"},
      {{"--Version"}, 2, help},
      {{(dir / "in.wav").string(), (dir / "out.dts").string(), "--help"}, 0, help},
  };
  for (const auto& [args, status, out] : cases) {
    const auto r = tavrin(args);
    EXPECT_EQ(r.exit_status, status) << (args.empty() ? "(none)" : args.back());
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.err, "");
  }
  EXPECT_FALSE(fs::exists(dir / "out.dts"));
}

// Option errors come before the output is created; later ones leave it behind
// with whatever frames were finished.
TEST(Cli, Failures) {
  const fs::path dir = test::fresh_test_dir("cli-fail");
  const auto path = [&](const char* name) { return (dir / name).string(); };
  const std::string in = path("missing.wav"), out = path("out.dts"), bad_out = path("no/such/out.dts");
  write_wav_file(path("stereo.wav"), stereo(10, 0), 48000, SampleFormat::s16le);
  write_wav_file(path("five.wav"), std::vector<std::vector<double>>(6, std::vector<double>(10)), 48000,
                 SampleFormat::s16le, 0x3Fu);
  // The header promises more audio than the file holds.
  auto truncated = build_wav_bytes(stereo(4000, 0.1), 48000, SampleFormat::s16le);
  truncated.resize(truncated.size() - 100);
  test::write_bytes(dir / "truncated.wav", truncated);
  for (const char* name : {"song.FLAC", "c.Flac", "x.flac.wav", "flac"}) test::write_bytes(dir / name, {0});
  const std::string not_wave = "unexpected end of PCM/WAVE file";
  const std::string matrix_ref = "--dev-matrix-memory-reference";
  struct Case {
    std::vector<std::string> args;
    std::string error;  // after the "Tavrin-DTS: " prefix
    long output_bytes;  // -1: no output file
  };
  const std::vector<Case> cases = {
      {{in, bad_out}, "cannot create output DTS: " + bad_out, -1},
      {{in, out, "--quiet"}, "cannot open input: " + in, 0},
      {{in, out, "--bitrate", "96"}, "unsupported bitrate; use 768, 1024, 1152 or 1411", -1},
      {{path("song.FLAC"), out, "--raw", "--pcm-format", "s16le", "--sample-rate", "48000", "--layout", "2.0"},
       "--raw cannot be used with FLAC input", 0},
      {{path("c.Flac"), out}, "FLAC input is not available in this version yet", 0},
      // Only a last extension of exactly ".flac", in any case, means FLAC.
      {{path("x.flac.wav"), out}, not_wave, 0},
      {{path("flac"), out}, not_wave, 0},
      {{path("five.wav"), out, "--legacy"}, "--legacy, --production-candidate and --experimental-span24 are stereo-only",
       0},
      {{path("stereo.wav"), out, "--production-candidate"},
       "--production-candidate is not available in this version yet", 0},
      {{path("stereo.wav"), out, "--matrix-decode"}, "--matrix-decode is not available in this version yet", 0},
      {{path("five.wav"), out, "--matrix-decode", matrix_ref}, "--matrix-decode requires 2-channel stereo input", 0},
      {{path("truncated.wav"), out, "--matrix-decode", matrix_ref}, "unexpected end of PCM input", 0},
      {{path("truncated.wav"), out}, "unexpected end of PCM input", 3 * 2048},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.front() + " " + c.error);
    fs::remove(out);
    const auto r = tavrin(c.args);
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "Tavrin-DTS: " + c.error + "\n");
    EXPECT_EQ(fs::exists(out) ? static_cast<long>(fs::file_size(out)) : -1, c.output_bytes);
  }
}

TEST(Cli, SummaryQuietAndWriteFailure) {
  const fs::path dir = test::fresh_test_dir("cli-quiet");
  const std::string in = (dir / "in.wav").string();
  write_wav_file(in, stereo(3000, 0.25), 48000, SampleFormat::s16le);
  const auto loud = tavrin({in, (dir / "loud.dts").string()});
  EXPECT_EQ(loud.exit_status, 0);
  EXPECT_EQ(loud.out,
            "Input: 48000 Hz, s16le, stereo, 3000 samples (WAVE)\n"
            "Output: 768000 bit/s nominal, 2048 bytes/frame, 3 DTS frames\n"
            "Path: legacy ADPCM rate\n"
            "Realized average bitrate: 768000.00 bit/s\n"
            "Final frame zero-padded by 72 samples/channel\n");
  const auto quiet = tavrin({in, (dir / "quiet.dts").string(), "-q"});
  EXPECT_EQ(quiet.exit_status, 0);
  EXPECT_EQ(quiet.out + quiet.err, "");
  EXPECT_EQ(fs::file_size(dir / "quiet.dts"), 3u * 2048u);
  if (!fs::exists("/dev/full")) GTEST_SKIP() << "no /dev/full here";
  const auto full = tavrin({in, "/dev/full", "-q"});
  EXPECT_EQ(full.exit_status, 1);
  EXPECT_EQ(full.err, "Tavrin-DTS: failed writing DTS output\n");
}

}  // namespace
}  // namespace tavrin
