// The 24+8 encoder end to end: every mode at both rates and all four bit
// rates makes streams both decoders read, of exactly the CBR size, at unity
// gain, with the summary the driver promises, the same bytes every time.
// (How they sound against the legacy path: the quality floors.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "support/decoders.h"
#include "support/measure.h"
#include "support/wav_writer.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;
using test::Channels;

constexpr std::size_t kDelay = 480;

// Tones, a decaying pluck every 0.2 s and a little noise.
Channels programme(std::uint32_t rate, std::size_t n) {
  Channels c(2, std::vector<double>(n));
  std::mt19937 gen(5);
  std::uniform_real_distribution<double> noise(-0.01, 0.01);
  const double w = 2.0 * std::numbers::pi / rate;
  for (std::size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i);
    const double since = static_cast<double>(i % (rate / 5)) / rate;
    const double pluck = 0.4 * std::exp(-since * 25.0) * std::sin(w * 1318.5 * t);
    c[0][i] = 0.2 * std::sin(w * 220 * t) + pluck + 0.05 * std::sin(w * 7040 * t) + noise(gen);
    c[1][i] = 0.2 * std::sin(w * 330 * t) + 0.5 * pluck + 0.03 * std::sin(w * 11000 * t) + noise(gen);
  }
  return test::as_stored(c, SampleFormat::s24le);
}

struct Mode {
  std::vector<std::string> options;
  std::string path;  // the "Path:" line
};

TEST(Span24Encode, EveryModeRateAndBitrate) {
  const fs::path dir = test::fresh_test_dir("span24");
  const std::vector<Mode> modes = {
      {{"--production-candidate"}, "PRODUCTION-CANDIDATE 24+8 rate-aware"},
      {{"--experimental-span24", "absolute"}, "EXPERIMENTAL 24+8 rate-aware (absolute)"},
      {{"--experimental-span24", "absolute-tmode"}, "EXPERIMENTAL 24+8 rate-aware (absolute-tmode)"},
      {{"--experimental-span24", "absolute-jump"}, "EXPERIMENTAL 24+8 rate-aware (absolute-jump)"},
      {{"--experimental-span24", "candidate"}, "EXPERIMENTAL 24+8 rate-aware (candidate)"},
      {{"--experimental-span24", "candidate-jump"}, "EXPERIMENTAL 24+8 rate-aware (candidate-jump)"},
      {{"--experimental-span24", "log"}, "EXPERIMENTAL 24+8 rate-aware (log)"},
      {{"--experimental-span24", "mask"}, "EXPERIMENTAL 24+8 rate-aware (mask)"},
  };
  const std::size_t n = 12000;  // 12 frames, the last padded
  for (const std::uint32_t rate : {44100u, 48000u}) {
    const Channels source = programme(rate, n);
    const fs::path wav = dir / ("in" + std::to_string(rate) + ".wav");
    write_wav_file(wav.string(), source, rate, SampleFormat::s24le);
    for (const std::uint32_t bitrate : {768000u, 1024000u, 1152000u, 1411200u}) {
      for (const Mode& mode : modes) {
        const std::string name = std::to_string(rate) + " " + std::to_string(bitrate) + " " + mode.options.back();
        SCOPED_TRACE(name);
        const fs::path dts = dir / "out.dts";
        std::vector<std::string> args = {wav.string(), dts.string(), "-b", std::to_string(bitrate)};
        args.insert(args.end(), mode.options.begin(), mode.options.end());
        const auto run = test::run_tavrin(args);
        ASSERT_EQ(run.exit_status, 0) << run.err;
        EXPECT_EQ(fs::file_size(dts), test::expected_stream_bytes(rate, bitrate, n));
        const auto out = test::lines(run.out);
        ASSERT_EQ(out.size(), 6u) << run.out;
        EXPECT_EQ(out[2], "Path: " + mode.path);
        // The tones are predictable from the second frame on, and at the
        // lowest rate, where bits are scarce, what prediction saves is spent
        // again.
        unsigned long frames = 0, predictions = 0, reinvested = 0;
        char end = 0;
        ASSERT_EQ(std::sscanf(out[4].c_str(), "Span24 frames: %lu, predictions: %lu, reinvested bits: %lu%c", &frames,
                              &predictions, &reinvested, &end),
                  3)
            << out[4];
        EXPECT_EQ(frames, 12u);
        if (bitrate == 768000u) {
          EXPECT_GT(predictions, 20u);
          EXPECT_GT(reinvested, 100u);
        }
        EXPECT_EQ(out[5], "Final frame zero-padded by 288 samples/channel");

        const auto dca = test::run_dcadec(dts, "null");
        EXPECT_TRUE(dca.clean()) << dca.errors;
        EXPECT_EQ(dca.frames_decoded, 12);
        const auto decoded = test::decode_with_ffmpeg(dts, 2);
        ASSERT_TRUE(decoded.clean()) << decoded.run.err;
        for (std::size_t c = 0; c < 2; ++c) {
          const test::Match m = test::compare(source[c], decoded.channels[c], kDelay);
          EXPECT_NEAR(m.gain_db, 0.0, 0.05) << "channel " << c;
          EXPECT_GT(m.snr_db, bitrate == 768000u ? 20.0 : 30.0) << "channel " << c;
        }
        // A second run writes the same bytes.
        if (bitrate == 1024000u) {
          const auto first = test::read_bytes(dts);
          ASSERT_EQ(test::run_tavrin(args).exit_status, 0);
          EXPECT_EQ(test::read_bytes(dts), first);
        }
      }
    }
  }
}

}  // namespace
}  // namespace tavrin
