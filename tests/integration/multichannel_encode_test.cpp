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

#include "support/encode.h"
#include "support/wav_writer.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;
using test::Channels;

constexpr std::size_t kSamples = 20000;  // 20 frames, the last one padded by 480

struct Layout {
  std::string name;    // --layout word
  std::uint32_t mask;  // WAVEFORMATEXTENSIBLE mask; file order = ffmpeg's output order
  std::string ffmpeg;  // the layout ffprobe reports
  int lfe_index;       // source (and decoded) channel of the LFE, -1 without
  std::string path;    // the summary's "Path:" line
};

const std::vector<Layout>& layouts() {
  static const std::vector<Layout> all = {
      {"3.0", 0x7, "3.0", -1, "adaptive multichannel Core (AMODE 5)"},
      {"4.0", 0x603, "quad(side)", -1, "adaptive multichannel Core (AMODE 8)"},
      {"4.0", 0x33, "quad(side)", -1, "adaptive multichannel Core (AMODE 8)"},
      {"5.0", 0x607, "5.0(side)", -1, "adaptive multichannel Core (AMODE 9)"},
      {"5.1", 0x60F, "5.1(side)", 3, "adaptive multichannel Core (AMODE 9 + LFF2)"},
  };
  return all;
}

std::size_t channels_of(const Layout& layout) { return static_cast<std::size_t>(std::popcount(layout.mask)); }

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

// Each bit rate with the worst main-channel SNR it must reach on these
// signals with five channels sharing it (fewer channels do better); the
// floors sit a few dB under what the encoder measures.
constexpr std::pair<std::uint32_t, double> kBitrates[] = {{768000, 32.0}, {1024000, 34.0}, {1152000, 35.5},
                                                          {1411200, 39.0}};

// Every layout at every bit rate and both sample rates, from WAVE and raw
// input in turn, with the summary of each.
TEST(MultichannelEncode, EveryLayoutRateAndBitrate) {
  const fs::path dir = test::fresh_test_dir("multichannel");
  for (const Layout& layout : layouts()) {
    const std::size_t channels = channels_of(layout);
    for (const std::uint32_t rate : {44100u, 48000u}) {
      const Channels source = speaker_signals(rate, kSamples, channels, layout.lfe_index);
      for (std::size_t i = 0; i < 4; ++i) {
        const auto [bitrate, snr_floor] = kBitrates[i];
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
        const test::Encoded r =
            test::encode_file(input, {rate, bitrate, kSamples, static_cast<int>(channels), layout.ffmpeg}, extra);

        const auto out = test::lines(r.run.out);
        ASSERT_EQ(out.size(), 6u) << r.run.out;
        EXPECT_EQ(out[0], "Input: " + std::to_string(rate) + " Hz, " + layout.name + ", 20000 samples/channel (" +
                              (raw ? "raw PCM" : "WAVEFORMATEXTENSIBLE") + ")");
        if (rate == 48000 && bitrate == 768000) {
          EXPECT_EQ(out[1], "Output: 768000 bit/s nominal, 2048 bytes/frame, 20 DTS frames");
          EXPECT_EQ(out[3], "Realized average bitrate: 768000.00 bit/s");
        }
        EXPECT_EQ(out[2], "Path: " + layout.path);
        EXPECT_EQ(out[5], "Final frame zero-padded by 480 samples/channel");
        // A frame has 4 subframes x main channels x 32 bands.
        unsigned lo = 0, hi = 0;
        double mean = 0;
        ASSERT_EQ(std::sscanf(out[4].c_str(), "Active band-groups min/avg/max: %u/%lf/%u", &lo, &mean, &hi), 3) << out[4];
        EXPECT_TRUE(0 < lo && lo <= mean && mean <= hi && hi <= 4 * 32 * (channels - (layout.lfe_index >= 0)));

        if (r.decoded.channels.size() != channels) continue;
        double worst = 300.0;
        for (std::size_t ch = 0; ch < channels; ++ch) {
          SCOPED_TRACE("channel " + std::to_string(ch));
          if (static_cast<int>(ch) == layout.lfe_index) {
            test::expect_lfe_matches(source[ch], r.decoded.channels[ch]);
          } else {
            worst = std::min(worst, test::expect_unity(source[ch], r.decoded.channels[ch], snr_floor).snr_db);
          }
        }
        std::printf("[ quality  ] %s: worst main channel SNR %.2f dB\n", name.c_str(), worst);
      }
    }
  }
}

// The decoder checks above must be able to fail: damaging the side
// information of one frame shows in both decoders' reports.
TEST(MultichannelEncode, DecodersNoticeADamagedFrame) {
  const fs::path dir = test::fresh_test_dir("multichannel-damaged");
  const Layout& layout = layouts()[4];
  const Channels source = speaker_signals(48000, kSamples, 6, layout.lfe_index);
  const fs::path input = dir / "in.wav", stream = dir / "in.dts";
  write_wav_file(input.string(), source, 48000, SampleFormat::s24le, layout.mask);
  test::encode_file(input, {48000, 768000, kSamples, 6, layout.ffmpeg}, {"-q"});
  std::vector<std::uint8_t> bytes = test::read_bytes(stream);
  for (std::size_t i = 14; i < 18; ++i) bytes[2048 + i] ^= 0xFF;
  test::write_bytes(stream, bytes);
  const test::DecodedAudio decoded = test::decode_with_ffmpeg(stream, 6);
  EXPECT_FALSE(decoded.clean() && decoded.channels.size() == 6 && decoded.channels[0].size() == 20 * 1024);
  const test::DcadecResult dca = test::run_dcadec(stream, "null");
  EXPECT_FALSE(dca.clean() && dca.frames_decoded == 20);
}

}  // namespace
}  // namespace tavrin
