// End-to-end stereo encodes with the real program, judged by the decoders:
// every frame decodes, the file has exactly the CBR size, the audio comes
// back at unity gain 480 samples later, with a quality fitting the bit rate.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support/encode.h"
#include "support/signals.h"
#include "support/wav_writer.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;
using test::as_stored;
using test::Channels;
using test::compare;
using test::kCodecDelay;
using test::lines;
using test::Match;

constexpr double kSilent = 0.0, kUnjudged = -1.0;

// ---- signals ---------------------------------------------------------------

Channels noise(std::size_t n, double amplitude, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> dist(-amplitude, amplitude);
  Channels c(2, std::vector<double>(n));
  for (auto& ch : c)
    for (auto& v : ch) v = dist(gen);
  return c;
}

// Tones, a bass line and some noise: a stand-in for programme material.
Channels programme(std::uint32_t rate, std::size_t n) {
  Channels c = noise(n, 0.02, 7);
  for (std::size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / rate;
    c[0][i] += 0.3 * std::sin(2 * M_PI * 220 * t) + 0.1 * std::sin(2 * M_PI * 3520 * t) + 0.05 * std::sin(2 * M_PI * 9000 * t);
    c[1][i] += 0.25 * std::sin(2 * M_PI * 330 * t) + 0.12 * std::sin(2 * M_PI * 55 * t) + 0.04 * std::sin(2 * M_PI * 12500 * t);
  }
  return c;
}

// Encodes `input` (holding `source`) with the checks every encode must pass,
// then holds each channel to unity gain and `min_snr_db`: kSilent marks
// digital silence, which must decode to exact zeros, kUnjudged a signal too
// short to measure.
test::Encoded encode(const fs::path& input, const Channels& source, std::uint32_t rate, std::uint32_t bitrate,
                     double min_snr_db, const std::vector<std::string>& extra = {}, const std::string& env = "") {
  test::Encoded e = test::encode_file(input, {rate, bitrate, source[0].size(), 2, ""}, extra, env);
  if (e.decoded.channels.size() != 2 || min_snr_db == kUnjudged) return e;
  for (int c = 0; c < 2; ++c) {
    if (min_snr_db == kSilent) {
      EXPECT_EQ(compare(source[c], e.decoded.channels[c], kCodecDelay).decoded_peak, 0.0);
      continue;
    }
    const Match m = test::expect_unity(source[c], e.decoded.channels[c], min_snr_db);
    std::printf("[ quality  ] %s: SNR %.2f dB, gain %.4f dB\n", input.filename().c_str(), m.snr_db, m.gain_db);
  }
  return e;
}

// ---- tests -----------------------------------------------------------------

// Every bit rate at both sample rates on programme material, 768 kbit/s at
// 44.1 kHz from every input form: the floors sit a little under what this
// encoder measures, so a quality loss shows.
TEST(StereoEncode, EveryRateBitrateAndInputForm) {
  struct Case {
    std::uint32_t rate;
    std::uint32_t bitrate;
    double min_snr_db;
    const char* format;
    const char* form;  // as the summary names it; RF64 is named WAVE there
  };
  const Case cases[] = {
      {48000, 768000, 43.0, "s24le", "WAVE"},   {48000, 1024000, 61.0, "s24le", "WAVE"},
      {48000, 1152000, 68.0, "s24le", "WAVE"},  {48000, 1411200, 72.0, "s24le", "WAVE"},
      {44100, 1024000, 64.0, "s24le", "WAVE"},  {44100, 1152000, 66.0, "s24le", "WAVE"},
      {44100, 1411200, 66.0, "s24le", "WAVE"},  {44100, 768000, 52.0, "s16le", "WAVE"},
      {44100, 768000, 52.0, "s24le", "WAVEFORMATEXTENSIBLE"}, {44100, 768000, 52.0, "s32le", "WAVE"},
      {44100, 768000, 52.0, "f32le", "WAVE"},   {44100, 768000, 52.0, "s24le", "RF64"},
      {44100, 768000, 52.0, "f32le", "raw PCM"},
  };
  const fs::path dir = test::fresh_test_dir("stereo-rates");
  for (const Case& c : cases) {
    const std::string name = std::to_string(c.rate) + "_" + std::to_string(c.bitrate) + "_" + c.format + "_" + c.form;
    SCOPED_TRACE(name);
    const SampleFormat fmt = parse_sample_format(c.format).value();
    const Channels source = as_stored(programme(c.rate, c.rate), fmt);
    const bool raw = std::string(c.form) == "raw PCM", rf64 = std::string(c.form) == "RF64";
    const fs::path input = dir / (name + (raw ? ".pcm" : ".wav"));
    std::vector<std::string> extra;
    if (raw) {
      test::write_bytes(input, encode_pcm_interleaved(source, fmt));
      extra = {"--raw", "--pcm-format", c.format, "--sample-rate", std::to_string(c.rate), "--layout", "stereo"};
    } else {
      const bool extensible = std::string(c.form) == "WAVEFORMATEXTENSIBLE";
      write_wav_file(input.string(), source, c.rate, fmt, extensible ? std::optional<std::uint32_t>(0x3) : std::nullopt,
                     rf64);
    }
    const test::Encoded e = encode(input, source, c.rate, c.bitrate, c.min_snr_db, extra);
    // Two runs write the same bytes, and the scalar kernel codes as well as
    // the vector one.
    if (c.rate == 48000 && c.bitrate == 1024000 && e.decoded.channels.size() == 2) {
      const fs::path stream = fs::path(input).replace_extension(".dts");
      const auto first = test::read_bytes(stream);
      const test::Encoded scalar = encode(input, source, c.rate, c.bitrate, c.min_snr_db, extra, "TAVRIN_DTS_QMF_SIMD=scalar");
      if (scalar.decoded.channels.size() == 2) {
        EXPECT_NEAR(compare(source[0], scalar.decoded.channels[0], kCodecDelay).snr_db,
                    compare(source[0], e.decoded.channels[0], kCodecDelay).snr_db, 0.5);
      }
      encode(input, source, c.rate, c.bitrate, kUnjudged, extra);
      EXPECT_EQ(test::read_bytes(stream), first) << "two runs differ";
    }
    const auto out = lines(e.run.out);
    if (c.rate != 44100 || c.bitrate != 768000) {
      ASSERT_GE(out.size(), 3u);
      EXPECT_EQ(out[2], "Path: legacy ADPCM rate");
      continue;
    }
    // 43 frames, the last one padded by 956.
    EXPECT_EQ(out, (std::vector<std::string>{
                       "Input: 44100 Hz, " + std::string(c.format) + ", stereo, 44100 samples (" +
                           (rf64 ? "WAVE" : c.form) + ")",
                       "Output: 768000 bit/s nominal, 2229-2230 bytes/frame, 44 DTS frames",
                       "Path: legacy ADPCM rate",
                       "Realized average bitrate: 767999.31 bit/s",
                       "Final frame zero-padded by 956 samples/channel",
                   }));
  }
}

// Every kind of material in the signal set, a second of each, at 768 kbit/s
// with SNR floors a little under what the encoder measures; digital silence
// comes back as exact zeros.
TEST(StereoEncode, EverySignalAndSilence) {
  const std::map<std::string, double> floors = {{"plucked", 72.0}, {"chord", 73.0}, {"sweep", 79.0}, {"pink", 32.0},
                                                {"speech", 73.0},  {"drums", 39.0}, {"castanets", 58.0},
                                                {"bass", 88.0},    {"mix", 40.0},   {"split", 60.0}};
  const fs::path dir = test::fresh_test_dir("stereo-signals");
  std::vector<test::TestSignal> set = test::make_signal_set(48000, 1.0);
  set.push_back({"silence", "", 48000, Channels(2, std::vector<double>(48000, 0.0)), {}});
  for (const test::TestSignal& s : set) {
    SCOPED_TRACE(s.id);
    const Channels source = as_stored(s.channels, SampleFormat::s24le);
    const fs::path input = dir / (s.id + ".wav");
    write_wav_file(input.string(), source, 48000, SampleFormat::s24le);
    encode(input, source, 48000, 768000, s.id == "silence" ? kSilent : floors.at(s.id));
  }
}

TEST(StereoEncode, FrameBoundariesAndEmptyInput) {
  const fs::path dir = test::fresh_test_dir("stereo-lengths");
  struct Case {
    std::size_t samples;
    std::uint64_t frames;
    std::string padding_line;  // empty: none
  };
  const std::vector<Case> cases = {
      {2048, 2, ""}, {2049, 3, "Final frame zero-padded by 1023 samples/channel"}, {1, 1, "Final frame zero-padded by 1023 samples/channel"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.samples);
    const Channels source = as_stored(noise(c.samples, 0.3, 5), SampleFormat::s16le);
    const fs::path input = dir / (std::to_string(c.samples) + "-samples.wav");
    write_wav_file(input.string(), source, 48000, SampleFormat::s16le);
    const auto out = lines(encode(input, source, 48000, 1152000, kUnjudged).run.out);
    ASSERT_GE(out.size(), 4u);
    EXPECT_EQ(out[1], "Output: 1152000 bit/s nominal, 3072 bytes/frame, " + std::to_string(c.frames) + " DTS frames");
    EXPECT_EQ(out[3], "Realized average bitrate: 1152000.00 bit/s");
    EXPECT_EQ(out.size(), c.padding_line.empty() ? 4u : 5u);
    if (!c.padding_line.empty()) {
      EXPECT_EQ(out.back(), c.padding_line);
    }
  }
  // An empty input makes an empty stream and says so.
  const fs::path empty = dir / "empty.pcm";
  test::write_bytes(empty, {});
  const auto r = test::run_command({TAVRIN_BINARY, empty.string(), (dir / "empty.dts").string(), "--raw",
                                    "--pcm-format", "s16le", "--sample-rate", "48000", "--layout", "2.0"});
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(fs::file_size(dir / "empty.dts"), 0u);
  EXPECT_EQ(lines(r.out), (std::vector<std::string>{"Input: 48000 Hz, s16le, stereo, 0 samples (raw PCM)",
                                                    "Output: 768000 bit/s nominal, 2048 bytes/frame, 0 DTS frames",
                                                    "Path: legacy ADPCM rate"}));
}

}  // namespace
}  // namespace tavrin
