// End-to-end 3.0, 4.0, 5.0 and 5.1 encodes with the real program, judged by
// the decoders: every frame decodes, the stream reports the right layout,
// the file has exactly the CBR size, and every speaker comes back on its own
// channel at unity gain 480 samples later (the LFE too, within its band).
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdint>
#include <filesystem>
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
constexpr std::size_t kSamples = 20000;  // 20 frames, the last one padded by 480

struct Layout {
  std::string name;       // --layout word
  std::uint32_t mask;     // WAVEFORMATEXTENSIBLE mask; file order = ffmpeg's output order
  std::string ffmpeg;     // the layout ffprobe reports
  int lfe_index;          // source (and decoded) channel of the LFE, -1 without
};

const std::vector<Layout>& layouts() {
  static const std::vector<Layout> all = {
      {"3.0", 0x7, "3.0", -1},          {"4.0", 0x603, "quad(side)", -1}, {"4.0", 0x33, "quad(side)", -1},
      {"5.0", 0x607, "5.0(side)", -1}, {"5.1", 0x60F, "5.1(side)", 3},
  };
  return all;
}

// A different pair of tones and a little noise on every speaker, so that a
// channel on the wrong output cannot pass; the LFE gets two bass tones.
Channels speaker_signals(std::uint32_t rate, std::size_t n, std::size_t channels, int lfe_index) {
  Channels c(channels, std::vector<double>(n));
  std::mt19937 gen(17);
  std::uniform_real_distribution<double> noise(-0.01, 0.01);
  for (std::size_t ch = 0; ch < channels; ++ch) {
    const bool lfe = static_cast<int>(ch) == lfe_index;
    const double f1 = lfe ? 45.0 : 300.0 + 410.0 * static_cast<double>(ch);
    const double f2 = lfe ? 85.0 : 2100.0 + 1730.0 * static_cast<double>(ch);
    for (std::size_t i = 0; i < n; ++i) {
      const double t = static_cast<double>(i) / rate;
      c[ch][i] = 0.3 * std::sin(2 * M_PI * f1 * t + static_cast<double>(ch)) + 0.1 * std::sin(2 * M_PI * f2 * t) +
                 (lfe ? 0.0 : noise(gen));
    }
  }
  return test::as_stored(c, SampleFormat::s24le);
}

// Worst main-channel SNR each bit rate must reach on these signals with five
// channels sharing it (fewer channels do better); the floors sit a few dB
// under what the encoder measures.
double snr_floor(std::uint32_t bitrate) {
  switch (bitrate) {
    case 768000: return 32.0;
    case 1024000: return 34.0;
    case 1152000: return 35.5;
    default: return 39.0;
  }
}

struct Encoded {
  test::CommandResult run;
  test::DecodedAudio decoded;
};

// Encodes `input` and checks what every multichannel stream must satisfy.
Encoded encode_and_check(const fs::path& input, const Layout& layout, std::size_t channels, std::uint32_t rate,
                     std::uint32_t bitrate, std::size_t samples, const std::vector<std::string>& extra) {
  Encoded r;
  const fs::path stream = fs::path(input).replace_extension(".dts");
  std::vector<std::string> args = {TAVRIN_BINARY, input.string(), stream.string(), "-b", std::to_string(bitrate)};
  args.insert(args.end(), extra.begin(), extra.end());
  r.run = test::run_command(args);
  EXPECT_EQ(r.run.exit_status, 0) << r.run.err;
  EXPECT_EQ(r.run.err, "");
  EXPECT_EQ(fs::file_size(stream), test::expected_stream_bytes(rate, bitrate, samples));

  const auto probe = test::probe_stream(stream);
  EXPECT_EQ(probe.codec_name, "dts");
  EXPECT_EQ(probe.sample_rate, static_cast<int>(rate));
  EXPECT_EQ(probe.channels, static_cast<int>(channels));
  EXPECT_EQ(probe.channel_layout, layout.ffmpeg);
  EXPECT_EQ(probe.bit_rate, static_cast<std::int64_t>(bitrate));

  const auto dca = test::run_dcadec(stream, "null");
  EXPECT_TRUE(dca.clean()) << dca.errors;
  EXPECT_EQ(dca.frames_decoded, static_cast<long>((samples + 1023) / 1024));

  r.decoded = test::decode_with_ffmpeg(stream, static_cast<int>(channels));
  EXPECT_TRUE(r.decoded.clean()) << r.decoded.run.err;
  EXPECT_EQ(r.decoded.channels.size(), channels);
  return r;
}

// Every layout at every bit rate and both sample rates, from WAVE and raw
// input in turn.
TEST(MultichannelEncode, EveryLayoutRateAndBitrate) {
  const fs::path dir = test::fresh_test_dir("multichannel");
  const std::uint32_t bitrates[] = {768000, 1024000, 1152000, 1411200};
  for (const Layout& layout : layouts()) {
    const std::size_t channels = static_cast<std::size_t>(std::popcount(layout.mask));
    for (const std::uint32_t rate : {44100u, 48000u}) {
      const Channels source = speaker_signals(rate, kSamples, channels, layout.lfe_index);
      for (std::size_t i = 0; i < 4; ++i) {
        const std::uint32_t bitrate = bitrates[i];
        // Raw input only has the side-surround order, which the back-pair
        // mask shares.
        const bool raw = i % 2 == 1 && layout.mask != 0x33;
        const std::string name = layout.name + "_" + std::to_string(layout.mask) + "_" + std::to_string(rate) + "_" +
                                 std::to_string(bitrate) + (raw ? "_raw" : "");
        SCOPED_TRACE(name);
        fs::path input = dir / (name + (raw ? ".pcm" : ".wav"));
        std::vector<std::string> extra;
        if (raw) {
          test::write_bytes(input, encode_pcm_interleaved(source, SampleFormat::s24le));
          extra = {"--raw", "--pcm-format", "s24le", "--sample-rate", std::to_string(rate), "--layout", layout.name};
        } else {
          write_wav_file(input.string(), source, rate, SampleFormat::s24le, layout.mask);
        }
        const Encoded r = encode_and_check(input, layout, channels, rate, bitrate, kSamples, extra);
        if (r.decoded.channels.size() != channels) continue;
        double worst = 300.0;
        for (std::size_t ch = 0; ch < channels; ++ch) {
          SCOPED_TRACE("channel " + std::to_string(ch));
          if (static_cast<int>(ch) == layout.lfe_index) {
            const auto delay = test::best_delay(source[ch], r.decoded.channels[ch], kDelay - 40, kDelay + 40);
            EXPECT_LE(std::abs(static_cast<long>(delay) - static_cast<long>(kDelay)), 16);
            EXPECT_NEAR(test::compare(source[ch], r.decoded.channels[ch], delay).gain_db, 0.0, 0.5);
            continue;
          }
          const test::Match m = test::compare(source[ch], r.decoded.channels[ch], kDelay);
          EXPECT_NEAR(m.gain_db, 0.0, 0.05);
          EXPECT_GE(m.snr_db, snr_floor(bitrate));
          worst = std::min(worst, m.snr_db);
        }
        std::printf("[ quality  ] %s: worst main channel SNR %.2f dB\n", name.c_str(), worst);
      }
    }
  }
}

TEST(MultichannelEncode, SummaryLines) {
  const fs::path dir = test::fresh_test_dir("multichannel-summary");
  struct Case {
    std::size_t layout;
    std::vector<std::string> expected;  // the active band-group line is checked by its prefix
  };
  const std::vector<Case> cases = {
      {4,
       {"Input: 48000 Hz, 5.1, 20000 samples/channel (WAVEFORMATEXTENSIBLE)",
        "Output: 768000 bit/s nominal, 2048 bytes/frame, 20 DTS frames",
        "Path: adaptive multichannel Core (AMODE 9 + LFF2)", "Realized average bitrate: 768000.00 bit/s",
        "Active band-groups min/avg/max: ", "Final frame zero-padded by 480 samples/channel"}},
      {1,
       {"Input: 48000 Hz, 4.0, 20000 samples/channel (WAVEFORMATEXTENSIBLE)",
        "Output: 768000 bit/s nominal, 2048 bytes/frame, 20 DTS frames", "Path: adaptive multichannel Core (AMODE 8)",
        "Realized average bitrate: 768000.00 bit/s", "Active band-groups min/avg/max: ",
        "Final frame zero-padded by 480 samples/channel"}},
  };
  for (const Case& c : cases) {
    const Layout& layout = layouts()[c.layout];
    const std::size_t channels = static_cast<std::size_t>(std::popcount(layout.mask));
    const fs::path input = dir / (layout.name + ".wav");
    write_wav_file(input.string(), speaker_signals(48000, kSamples, channels, layout.lfe_index), 48000,
                   SampleFormat::s24le, layout.mask);
    const auto r = test::run_command({TAVRIN_BINARY, input.string(), (dir / "out.dts").string()});
    const auto out = test::lines(r.out);
    ASSERT_EQ(out.size(), c.expected.size()) << r.out;
    for (std::size_t i = 0; i < out.size(); ++i) EXPECT_EQ(out[i].rfind(c.expected[i], 0), 0u) << out[i];
    // The active band groups: a frame has 4 subframes x channels x 32 bands.
    unsigned lo = 0, hi = 0;
    double mean = 0;
    ASSERT_EQ(std::sscanf(out[4].c_str(), "Active band-groups min/avg/max: %u/%lf/%u", &lo, &mean, &hi), 3);
    EXPECT_TRUE(0 < lo && lo <= mean && mean <= hi && hi <= 4 * 32 * (channels - (layout.lfe_index >= 0)));
  }
}

// The LFE decodes at the main channels' delay and level within its band, and
// what lies above it does not fold down into the bass.
TEST(MultichannelEncode, LfeAlignedAtLevelWithoutAliasing) {
  const fs::path dir = test::fresh_test_dir("multichannel-lfe");
  const Layout& layout = layouts()[4];
  for (const std::uint32_t rate : {44100u, 48000u}) {
    for (const double freq : {40.0, 80.0, 2000.0}) {
      SCOPED_TRACE(std::to_string(rate) + " Hz, LFE tone " + std::to_string(freq));
      const std::size_t n = rate;
      Channels source(6, std::vector<double>(n, 0.0));
      std::mt19937 gen(5);
      std::uniform_real_distribution<double> noise(-0.2, 0.2);
      for (std::size_t i = 0; i < n; ++i) {
        source[0][i] = noise(gen);  // fixes the main channels' delay
        source[3][i] = 0.5 * std::sin(2 * M_PI * freq * static_cast<double>(i) / rate);
      }
      source = test::as_stored(source, SampleFormat::s24le);
      const fs::path input = dir / (std::to_string(rate) + "_" + std::to_string(static_cast<int>(freq)) + ".wav");
      write_wav_file(input.string(), source, rate, SampleFormat::s24le, layout.mask);
      const Encoded r = encode_and_check(input, layout, 6, rate, 1411200, n, {"-q"});
      if (r.decoded.channels.size() != 6) continue;
      const auto& lfe = r.decoded.channels[3];
      EXPECT_EQ(test::best_delay(source[0], r.decoded.channels[0], kDelay - 40, kDelay + 40), kDelay);
      if (freq < 1000.0) {
        const auto delay = test::best_delay(source[3], lfe, kDelay - 40, kDelay + 40);
        EXPECT_LE(std::abs(static_cast<long>(delay) - static_cast<long>(kDelay)), 16);
        EXPECT_NEAR(test::compare(source[3], lfe, delay).gain_db, 0.0, 0.5);
      } else {
        double in = 0, out = 0;
        for (std::size_t i = kDelay; i < n; ++i) {
          in += source[3][i - kDelay] * source[3][i - kDelay];
          out += static_cast<double>(lfe[i]) * lfe[i];
        }
        EXPECT_LE(10.0 * std::log10(out / in), -40.0);
      }
    }
  }
}

}  // namespace
}  // namespace tavrin
