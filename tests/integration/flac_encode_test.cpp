// FLAC input through the real program: the same audio as FLAC and as WAVE
// gives the same stream, and a FLAC file that cannot be used stops the run
// before a single frame is written.
#include <gtest/gtest.h>

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
using test::Channels;

Channels tones(std::size_t channels, std::uint32_t rate, std::size_t n) {
  Channels c(channels, std::vector<double>(n));
  for (std::size_t ch = 0; ch < channels; ++ch)
    for (std::size_t i = 0; i < n; ++i)
      c[ch][i] = 0.4 * std::sin(2 * M_PI * (70.0 + 530.0 * static_cast<double>(ch)) * static_cast<double>(i) / rate);
  return c;
}

fs::path flac_from_wav(const fs::path& wav) {
  const fs::path flac = fs::path(wav).replace_extension(".flac");
  const auto r = test::run_command({"flac", "-s", "-f", "--no-padding", "-o", flac.string(), wav.string()});
  EXPECT_EQ(r.exit_status, 0) << r.err;
  return flac;
}

TEST(FlacEncode, SameStreamAsWave) {
  const fs::path dir = test::fresh_test_dir("flac-encode");
  const std::size_t samples = 30000;
  for (const std::size_t channels : {2u, 6u}) {
    for (const std::uint32_t rate : {44100u, 48000u}) {
      for (const SampleFormat fmt : {SampleFormat::s16le, SampleFormat::s24le}) {
        const int bits = fmt == SampleFormat::s16le ? 16 : 24;
        const std::string name = std::to_string(channels) + "ch_" + std::to_string(rate) + "_" + std::to_string(bits);
        SCOPED_TRACE(name);
        const fs::path wav = dir / (name + ".wav");
        write_wav_file(wav.string(), tones(channels, rate, samples), rate, fmt,
                       channels == 6 ? std::optional<std::uint32_t>(0x3F) : std::nullopt);
        const fs::path flac = flac_from_wav(wav);
        const fs::path from_wav = dir / (name + "-wav.dts"), from_flac = dir / (name + "-flac.dts");
        const auto w = test::run_command({TAVRIN_BINARY, wav.string(), from_wav.string(), "-b", "1024"});
        const auto f = test::run_command({TAVRIN_BINARY, flac.string(), from_flac.string(), "-b", "1024"});
        ASSERT_EQ(f.exit_status, 0) << f.err;
        EXPECT_EQ(test::read_bytes(from_flac), test::read_bytes(from_wav));
        EXPECT_FALSE(test::read_bytes(from_flac).empty());
        // Only the input line differs: the label, and for stereo the format.
        auto wav_lines = test::lines(w.out), flac_lines = test::lines(f.out);
        ASSERT_EQ(flac_lines.size(), wav_lines.size());
        EXPECT_EQ(flac_lines.front(), channels == 2 ? "Input: " + std::to_string(rate) + " Hz, " +
                                                          std::to_string(bits) + "-bit, stereo, 30000 samples (FLAC)"
                                                    : "Input: " + std::to_string(rate) +
                                                          " Hz, 5.1, 30000 samples/channel (FLAC)");
        wav_lines.erase(wav_lines.begin());
        flac_lines.erase(flac_lines.begin());
        EXPECT_EQ(flac_lines, wav_lines);
      }
    }
  }
}

// A file that does not decode leaves the output empty, and a missing library
// stops FLAC input only. (Each FLAC message is checked by the input tests.)
TEST(FlacEncode, RefusalsWriteNoFrame) {
  const fs::path dir = test::fresh_test_dir("flac-refusals");
  const fs::path good_wav = dir / "good.wav";
  write_wav_file(good_wav.string(), tones(2, 48000, 8000), 48000, SampleFormat::s16le);
  const fs::path good = flac_from_wav(good_wav);
  // Damage in the middle of the audio frames: their checksums fail.
  std::vector<std::uint8_t> bytes = test::read_bytes(good);
  for (std::size_t i = bytes.size() / 2; i < bytes.size() / 2 + 64; ++i) bytes[i] ^= 0x5A;
  test::write_bytes(dir / "corrupt.flac", bytes);
  const fs::path empty_dir = dir / "no-library";
  fs::create_directories(empty_dir);

  struct Case {
    std::string input;
    bool hide_library;
    std::string error;  // empty: the encode succeeds
  };
  const std::vector<Case> cases = {
      {"corrupt.flac", false, "libFLAC decode failed"},
      {"good.flac", true, "FLAC input requires libFLAC.so beside tavrin-dts or on the library path"},
      {"good.wav", true, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input);
    const fs::path out = dir / "out.dts";
    std::vector<std::string> args;
    if (c.hide_library) args = {"env", "TAVRIN_DTS_TEST_FLAC_DIR=" + empty_dir.string()};
    args.insert(args.end(), {TAVRIN_BINARY, (dir / c.input).string(), out.string(), "-q"});
    const auto r = test::run_command(args);
    EXPECT_EQ(r.exit_status, c.error.empty() ? 0 : 1);
    EXPECT_EQ(r.err, c.error.empty() ? "" : "Tavrin-DTS: " + c.error + "\n");
    EXPECT_EQ(fs::file_size(out) == 0, !c.error.empty());
  }
}

}  // namespace
}  // namespace tavrin
