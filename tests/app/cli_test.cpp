// The real program, run as a user runs it: one-word forms, exit statuses,
// what is created when, and the error line.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "app/help.h"
#include "support/decoders.h"
#include "support/wav_writer.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;
using test::run_command;

test::CommandResult tavrin(std::vector<std::string> args) {
  args.insert(args.begin(), TAVRIN_BINARY);
  return run_command(args);
}

TEST(Cli, OneWordForms) {
  const std::string help = help_text(false);
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
  };
  const std::vector<Case> cases = {
      {{}, 2, help},
      {{"--help"}, 0, help},
      {{"-h"}, 0, help},
      {{"--help-dev"}, 0, help_text(true)},
      {{"--version"}, 0, "Tavrin-DTS 1.0.1.0\n"},
      {{"-q"}, 2, help},
      {{"--Version"}, 2, help},
      {{"only-an-input.wav"}, 2, help},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.empty() ? "(none)" : c.args.front());
    const auto r = tavrin(c.args);
    EXPECT_EQ(r.exit_status, c.status);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, "");
  }
}

TEST(Cli, HelpAfterPathsCreatesNothing) {
  const fs::path dir = test::fresh_test_dir("cli-help");
  const auto r = tavrin({(dir / "in.wav").string(), (dir / "out.dts").string(), "--help"});
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.out, help_text(false));
  EXPECT_FALSE(fs::exists(dir / "out.dts"));
}

TEST(Cli, FailuresLeaveTheOutputBehind) {
  const fs::path dir = test::fresh_test_dir("cli-fail");
  const std::string in = (dir / "missing.wav").string();
  const std::string out = (dir / "out.dts").string();
  const std::string bad_dir_out = (dir / "no" / "such" / "out.dts").string();
  write_wav_file((dir / "stereo.wav").string(), {std::vector<double>(10), std::vector<double>(10)}, 48000,
                 SampleFormat::s16le);
  write_wav_file((dir / "five.wav").string(), std::vector<std::vector<double>>(6, std::vector<double>(10)), 48000,
                 SampleFormat::s16le, 0x3Fu);
  test::write_bytes(dir / "song.FLAC", {1, 2, 3});
  // A header that promises more audio than the file holds.
  auto truncated = build_wav_bytes({std::vector<double>(4000), std::vector<double>(4000)}, 48000, SampleFormat::s16le);
  truncated.resize(truncated.size() - 100);
  test::write_bytes(dir / "truncated.wav", truncated);
  test::write_bytes(dir / "song.flac.wav", {'n', 'o', 't'});
  test::write_bytes(dir / "hostile.wav", {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ',
                                          0xFF, 0xFF, 0xFF, 0x7F});
  struct Case {
    std::vector<std::string> args;
    std::string error;  // after the "Tavrin-DTS: " prefix
    bool output_exists;
  };
  const std::vector<Case> cases = {
      {{in, bad_dir_out}, "cannot create output DTS: " + bad_dir_out, false},
      {{in, out}, "cannot open input: " + in, true},
      {{in, out, "--bitrate", "96"}, "unsupported bitrate; use 768, 1024, 1152 or 1411", false},
      {{(dir / "song.FLAC").string(), out, "--raw", "--pcm-format", "s16le", "--sample-rate", "48000", "--layout",
        "2.0"},
       "--raw cannot be used with FLAC input",
       true},
      {{(dir / "song.flac.wav").string(), out}, "unexpected end of PCM/WAVE file", true},
      {{(dir / "hostile.wav").string(), out}, "unexpected end of PCM/WAVE file", true},
      {{(dir / "five.wav").string(), out, "--legacy"}, "--legacy, --production-candidate and --experimental-span24 are stereo-only", true},
      {{(dir / "stereo.wav").string(), out, "--production-candidate"},
       "--production-candidate is not available in this version yet", true},
      {{(dir / "stereo.wav").string(), out, "--matrix-decode"}, "--matrix-decode is not available in this version yet",
       true},
      {{(dir / "five.wav").string(), out, "--matrix-decode", "--dev-matrix-memory-reference"},
       "--matrix-decode requires 2-channel stereo input", true},
      {{(dir / "truncated.wav").string(), out, "--matrix-decode", "--dev-matrix-memory-reference"},
       "unexpected end of PCM input", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    fs::remove(out);
    const auto r = tavrin(c.args);
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Tavrin-DTS: " + c.error + "\n");
    EXPECT_EQ(fs::exists(out), c.output_exists);
    if (c.output_exists) {
      EXPECT_EQ(fs::file_size(out), 0u);
    }
  }
}

TEST(Cli, ShortAudioKeepsTheFramesAlreadyMade) {
  const fs::path dir = test::fresh_test_dir("cli-short");
  auto bytes = build_wav_bytes({std::vector<double>(4000, 0.1), std::vector<double>(4000, -0.1)}, 48000,
                               SampleFormat::s16le);
  bytes.resize(bytes.size() - 100);
  test::write_bytes(dir / "short.wav", bytes);
  const auto r = tavrin({(dir / "short.wav").string(), (dir / "out.dts").string()});
  EXPECT_EQ(r.exit_status, 1);
  EXPECT_EQ(r.err, "Tavrin-DTS: unexpected end of PCM input\n");
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(fs::file_size(dir / "out.dts"), 3u * 2048u);
}

TEST(Cli, AFullDiskIsAnError) {
  if (!fs::exists("/dev/full")) GTEST_SKIP() << "no /dev/full here";
  const fs::path dir = test::fresh_test_dir("cli-full");
  write_wav_file((dir / "in.wav").string(), {std::vector<double>(100, 0.1), std::vector<double>(100, 0.1)}, 48000,
                 SampleFormat::s16le);
  const auto r = tavrin({(dir / "in.wav").string(), "/dev/full", "-q"});
  EXPECT_EQ(r.exit_status, 1);
  EXPECT_EQ(r.err, "Tavrin-DTS: failed writing DTS output\n");
}

TEST(Cli, FlacIsRecognisedByTheLastExtension) {
  const fs::path dir = test::fresh_test_dir("cli-flac");
  for (const char* name : {"a.flac", "b.FLAC", "c.Flac"}) {
    test::write_bytes(dir / name, {0});
    const auto r = tavrin({(dir / name).string(), (dir / "out.dts").string()});
    EXPECT_EQ(r.exit_status, 1) << name;
    EXPECT_EQ(r.err, "Tavrin-DTS: FLAC input is not available in this version yet\n") << name;
  }
  for (const char* name : {"d.flac2", "e.fla", "f.", "flac"}) {
    test::write_bytes(dir / name, {0});
    const auto r = tavrin({(dir / name).string(), (dir / "out.dts").string()});
    EXPECT_EQ(r.err, "Tavrin-DTS: unexpected end of PCM/WAVE file\n") << name;
  }
}

TEST(Cli, QuietSilencesStandardOutputOnly) {
  const fs::path dir = test::fresh_test_dir("cli-quiet");
  const std::string in = (dir / "in.wav").string();
  write_wav_file(in, {std::vector<double>(3000, 0.25), std::vector<double>(3000, -0.25)}, 48000,
                 SampleFormat::s16le);
  const auto loud = tavrin({in, (dir / "loud.dts").string()});
  EXPECT_EQ(loud.exit_status, 0);
  EXPECT_NE(loud.out, "");
  const auto quiet = tavrin({in, (dir / "quiet.dts").string(), "-q"});
  EXPECT_EQ(quiet.exit_status, 0);
  EXPECT_EQ(quiet.out, "");
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(fs::file_size(dir / "quiet.dts"), 3u * 2048u);
  const auto failing = tavrin({(dir / "none.wav").string(), (dir / "x.dts").string(), "--quiet"});
  EXPECT_EQ(failing.out, "");
  EXPECT_EQ(failing.err, "Tavrin-DTS: cannot open input: " + (dir / "none.wav").string() + "\n");
}

}  // namespace
}  // namespace tavrin
