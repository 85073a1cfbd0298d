// The ways a user's command line could cost them data or leave them stuck:
// an output that names the input, audio arriving through a pipe or as FLAC,
// inputs that are not files at all or cannot be decoded, and headers that
// claim more than a file holds.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "support/decoders.h"
#include "support/measure.h"
#include "support/wav_writer.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;

const std::vector<std::string> kRawStereo24 = {"--raw", "--pcm-format", "s24le", "--sample-rate", "48000",
                                               "--layout", "2.0"};

const auto quoted = test::shell_quoted;
const auto shell = test::run_shell;

std::vector<std::vector<double>> tones(std::size_t channels, std::size_t n) {
  std::vector<std::vector<double>> c(channels, std::vector<double>(n));
  for (std::size_t ch = 0; ch < channels; ++ch)
    for (std::size_t i = 0; i < n; ++i)
      c[ch][i] = 0.3 * std::sin(0.01 * static_cast<double>((ch + 1) * i)) + 0.01 * std::sin(0.9 * static_cast<double>(i));
  return c;
}

std::string error_line(const std::string& message) { return "Tavrin-DTS: " + message + "\n"; }

TEST(InputSafety, AnOutputThatIsTheInputIsRefusedAndTheInputKept) {
  const fs::path dir = test::fresh_test_dir("same-file");
  const fs::path wav = dir / "a.wav", raw = dir / "a.s24";
  write_wav_file(wav.string(), tones(2, 3000), 48000, SampleFormat::s24le);
  test::write_bytes(raw, encode_pcm_interleaved(tones(2, 3000), SampleFormat::s24le));
  fs::create_symlink(wav, dir / "link.wav");
  fs::create_hard_link(wav, dir / "hard.wav");
  fs::create_symlink(raw, dir / "link.s24");
  const auto wav_bytes = test::read_bytes(wav), raw_bytes = test::read_bytes(raw);

  struct Case {
    fs::path input;
    std::string output;
    bool raw;
  };
  const std::vector<Case> cases = {
      {wav, wav.string(), false},
      {wav, (dir / "." / "a.wav").string(), false},
      {wav, (dir / "link.wav").string(), false},
      {dir / "link.wav", wav.string(), false},
      {wav, (dir / "hard.wav").string(), false},
      {raw, raw.string(), true},
      {raw, (dir / "link.s24").string(), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input.string() + " -> " + c.output);
    std::vector<std::string> args = {c.input.string(), c.output};
    if (c.raw) args.insert(args.end(), kRawStereo24.begin(), kRawStereo24.end());
    const auto r = test::run_tavrin(args);
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, error_line("output would overwrite the input: " + c.output));
  }
  // Standard input redirected from the file the output names.
  const auto r = shell("$T - " + quoted(wav) + " < " + quoted(wav));
  EXPECT_EQ(r.exit_status, 1);
  EXPECT_EQ(r.err, error_line("output would overwrite the input: " + wav.string()));
  EXPECT_EQ(test::read_bytes(wav), wav_bytes);
  EXPECT_EQ(test::read_bytes(raw), raw_bytes);
}

struct Encoded {
  test::CommandResult run;
  std::vector<std::uint8_t> stream;
};

Encoded encode_with(const std::string& line, const fs::path& out) {
  Encoded e{shell(line), {}};
  EXPECT_EQ(e.run.exit_status, 0) << line << "\n" << e.run.err;
  if (fs::exists(out)) e.stream = test::read_bytes(out);
  return e;
}

// A pipe carries no length: ffmpeg leaves placeholders in the header, and
// raw PCM has no header at all. Either way, and from FLAC, the stream and
// the summary are those of a WAVE file holding the same audio.
TEST(InputSafety, PipesAndFlacGiveTheStreamOfTheSameFile) {
  ASSERT_TRUE(test::program_available("ffmpeg"));
  ASSERT_TRUE(test::program_available("flac"));
  const fs::path dir = test::fresh_test_dir("pipes");
  struct Case {
    std::size_t channels;
    std::uint32_t rate;
    const char* format;
    std::string flac_input_line;
  };
  const Case cases[] = {
      {2, 44100, "s16le", "Input: 44100 Hz, 16-bit, stereo, 5000 samples (FLAC)"},
      {6, 48000, "s24le", "Input: 48000 Hz, 5.1, 5000 samples/channel (FLAC)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.channels);
    const SampleFormat fmt = parse_sample_format(c.format).value();
    const std::string tag = std::to_string(c.channels);
    const fs::path wav = dir / ("in" + tag + ".wav"), ffwav = dir / ("ff" + tag + ".wav");
    const fs::path flac = dir / ("in" + tag + ".flac"), raw = dir / "in.pcm", out = dir / "out.dts";
    write_wav_file(wav.string(), tones(c.channels, 5000), c.rate, fmt,
                   c.channels == 6 ? std::optional<std::uint32_t>(0x3F) : std::nullopt);
    const std::string ff = "ffmpeg -v error -y -i " + quoted(wav) + " -c:a pcm_" + c.format + " ";
    // ffmpeg writing a file seeks back and fills in the sizes: the reference.
    ASSERT_EQ(shell(ff + "-f wav " + quoted(ffwav)).exit_status, 0);
    const Encoded file = encode_with("$T " + quoted(ffwav) + " " + quoted(out), out);
    ASSERT_FALSE(file.stream.empty());
    EXPECT_NE(file.run.out.find("5000 samples"), std::string::npos) << file.run.out;

    const Encoded piped = encode_with(ff + "-f wav - | $T - " + quoted(out), out);
    EXPECT_EQ(piped.stream, file.stream);
    EXPECT_EQ(piped.run.out, file.run.out);

    // A named pipe, written by a plain copy whose header states the length.
    const fs::path fifo = dir / "fifo.wav";
    fs::remove(fifo);
    ASSERT_EQ(shell("mkfifo " + quoted(fifo)).exit_status, 0);
    const Encoded named =
        encode_with("cat " + quoted(ffwav) + " > " + quoted(fifo) + " & $T " + quoted(fifo) + " " + quoted(out), out);
    EXPECT_EQ(named.stream, file.stream);

    // FLAC: only the input line differs.
    ASSERT_EQ(shell("flac -s -f --no-padding -o " + quoted(flac) + " " + quoted(wav)).exit_status, 0);
    const Encoded from_flac = encode_with("$T " + quoted(flac) + " " + quoted(out), out);
    EXPECT_EQ(from_flac.stream, file.stream);
    auto file_lines = test::lines(file.run.out), flac_lines = test::lines(from_flac.run.out);
    ASSERT_FALSE(flac_lines.empty());
    EXPECT_EQ(flac_lines.front(), c.flac_input_line);
    file_lines.erase(file_lines.begin());
    flac_lines.erase(flac_lines.begin());
    EXPECT_EQ(flac_lines, file_lines);

    if (c.channels != 2) continue;
    ASSERT_EQ(shell(ff + "-f " + c.format + " " + quoted(raw)).exit_status, 0);
    const std::string raw_args = " --raw --pcm-format " + std::string(c.format) + " --sample-rate " +
                                 std::to_string(c.rate) + " --layout 2.0";
    const Encoded raw_file = encode_with("$T " + quoted(raw) + " " + quoted(out) + raw_args, out);
    const Encoded raw_piped = encode_with(ff + "-f " + c.format + " - | $T - " + quoted(out) + raw_args, out);
    EXPECT_EQ(raw_piped.stream, raw_file.stream);
    EXPECT_EQ(raw_piped.run.out, raw_file.run.out);
    EXPECT_EQ(raw_file.stream, file.stream);

    // Ending inside a sample frame fails as a file of that length would.
    const auto cut_raw = shell("head -c 3001 " + quoted(raw) + " | $T - " + quoted(out) + raw_args);
    EXPECT_EQ(cut_raw.exit_status, 1);
    EXPECT_EQ(cut_raw.err, error_line("raw PCM byte count is not whole interleaved frames"));
    // The header as ffmpeg writes it into a pipe, placeholders and all.
    const fs::path pipe_wav = dir / "pipe.wav";
    ASSERT_EQ(shell(ff + "-f wav - > " + quoted(pipe_wav)).exit_status, 0);
    const auto cut_wav = shell("head -c 3001 " + quoted(pipe_wav) + " | $T - " + quoted(out));
    EXPECT_EQ(cut_wav.exit_status, 1);
    EXPECT_EQ(cut_wav.err, error_line("unexpected end of PCM input"));
  }
}

// A FLAC file that fails to decode halfway leaves the output empty, and a
// missing libFLAC stops FLAC input only. (The input tests check each FLAC
// message.)
TEST(InputSafety, UnusableFlacWritesNoFrame) {
  const fs::path dir = test::fresh_test_dir("flac-refusals");
  const fs::path wav = dir / "good.wav", flac = dir / "good.flac", no_library = dir / "no-library";
  write_wav_file(wav.string(), tones(2, 8000), 48000, SampleFormat::s16le);
  ASSERT_EQ(test::run_command({"flac", "-s", "-f", "--no-padding", "-o", flac.string(), wav.string()}).exit_status, 0);
  // Damage in the middle of the audio frames: their checksums fail.
  std::vector<std::uint8_t> bytes = test::read_bytes(flac);
  for (std::size_t i = bytes.size() / 2; i < bytes.size() / 2 + 64; ++i) bytes[i] ^= 0x5A;
  test::write_bytes(dir / "corrupt.flac", bytes);
  fs::create_directories(no_library);
  struct Case {
    std::string input;
    bool hide_library;
    std::string error;  // empty: the encode succeeds
  };
  const Case cases[] = {
      {"corrupt.flac", false, "libFLAC decode failed"},
      {"good.flac", true, "FLAC input requires libFLAC.so beside tavrin-dts or on the library path"},
      {"good.wav", true, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input);
    const fs::path out = dir / "out.dts";
    std::vector<std::string> args;
    if (c.hide_library) args = {"env", "TAVRIN_DTS_TEST_FLAC_DIR=" + no_library.string()};
    args.insert(args.end(), {TAVRIN_BINARY, (dir / c.input).string(), out.string(), "-q"});
    const auto r = test::run_command(args);
    EXPECT_EQ(r.exit_status, c.error.empty() ? 0 : 1);
    EXPECT_EQ(r.err, c.error.empty() ? "" : error_line(c.error));
    EXPECT_EQ(fs::file_size(out) == 0, !c.error.empty());
  }
}

TEST(InputSafety, InputsThatAreNotFilesAreRefused) {
  const fs::path dir = test::fresh_test_dir("not-files");
  const fs::path out = dir / "out.dts";
  ASSERT_TRUE(fs::is_character_file("/dev/zero"));
  struct Case {
    std::string input;
    std::string message;
  };
  for (const Case& c : std::vector<Case>{
           {"/dev/zero", "input is a character device, not an audio file or pipe: /dev/zero"},
           {dir.string(), "input is a directory, not an audio file or pipe: " + dir.string()},
       }) {
    for (const bool raw : {false, true}) {
      std::vector<std::string> args = {c.input, out.string()};
      if (raw) args.insert(args.end(), kRawStereo24.begin(), kRawStereo24.end());
      const auto r = test::run_tavrin(args);
      EXPECT_EQ(r.exit_status, 1);
      EXPECT_EQ(r.err, error_line(c.message));
      EXPECT_FALSE(fs::exists(out)) << "an output was created for " << c.input;
    }
  }
}

// Peak resident memory of the children this process has waited for, in KB;
// each test runs in a process of its own.
long children_peak_kb() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  return usage.ru_maxrss;
}

TEST(InputSafety, AHeaderClaimingGigabytesCostsNoMemory) {
  const fs::path dir = test::fresh_test_dir("huge-claim");
  auto bytes = build_wav_bytes({{0.0}, {0.0}}, 48000, SampleFormat::s24le);
  ASSERT_EQ(bytes.size(), 50u);
  bytes.resize(44);
  const std::uint32_t claim = 0xFFFFFFF0u;  // about 4 GB of audio that is not there
  for (int i = 0; i < 4; ++i) bytes[40 + i] = static_cast<std::uint8_t>(claim >> (8 * i));
  test::write_bytes(dir / "claim.wav", bytes);
  const auto r = test::run_tavrin({(dir / "claim.wav").string(), (dir / "out.dts").string(), "--matrix-decode",
                         "--dev-matrix-memory-reference"});
  EXPECT_EQ(r.exit_status, 1);
  EXPECT_EQ(r.err, error_line("unexpected end of PCM input"));
  EXPECT_LT(children_peak_kb(), 200 * 1024);
}

TEST(InputSafety, ManyTinyChunksAreSkippedInTimeWithTheirBytes) {
  const fs::path dir = test::fresh_test_dir("many-chunks");
  std::vector<std::uint8_t> bytes = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'};
  const std::size_t chunks = 1'500'000;
  bytes.reserve(bytes.size() + chunks * 10);
  for (std::size_t i = 0; i < chunks; ++i) bytes.insert(bytes.end(), {'j', 'u', 'n', 'k', 2, 0, 0, 0, 0, 0});
  test::write_bytes(dir / "chunks.wav", bytes);
  const auto start = std::chrono::steady_clock::now();
  const auto r = test::run_tavrin({(dir / "chunks.wav").string(), (dir / "out.dts").string()});
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(r.exit_status, 1);
  EXPECT_EQ(r.err, error_line("unexpected end of PCM/WAVE file"));
#ifdef TAVRIN_SANITIZED
  const double limit = 10.0;  // instrumented code is several times slower
#else
  const double limit = 1.0;
#endif
  EXPECT_LT(seconds, limit);
}

}  // namespace
}  // namespace tavrin
