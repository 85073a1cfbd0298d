// The analysis bank against a real decoder: subband samples from the bank,
// quantized finely and written as Core frames, must decode in ffmpeg to the
// input itself, at unity gain and exactly 480 samples (15 blocks) late.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

#include "alloc/plan_payload.h"
#include "bitstream/frame.h"
#include "dsp/qmf.h"
#include "dsp/quantizer.h"
#include "support/decoders.h"

namespace tavrin {
namespace {

constexpr int kRate = 48000;
constexpr std::size_t kFrames = 20;
constexpr std::size_t kChannels = 2;
constexpr unsigned kSubframes = 4;
constexpr std::size_t kSlotsPerSubframe = kQmfBlocksPerFrame / kSubframes;  // 8, one subsubframe
// Far above what 1411.2 kbit/s allows: ABITS 20 and up needs some 36 kbit per
// frame, and the decoder takes each frame's size from its header.
constexpr std::uint16_t kFrameBytes = 8192;
constexpr std::size_t kDelay = 480;

std::vector<std::vector<double>> make_input() {
  std::mt19937 rng(2024);
  std::normal_distribution<double> noise(0.0, 0.02);
  std::vector<std::vector<double>> x(kChannels, std::vector<double>(kFrames * kQmfFrameSamples));
  for (std::size_t i = 0; i < x[0].size(); ++i) {
    const double t = static_cast<double>(i) / kRate;
    x[0][i] = 0.45 * std::sin(2 * std::numbers::pi * 997.0 * t) + noise(rng);
    x[1][i] = 0.30 * std::sin(2 * std::numbers::pi * 3150.0 * t + 0.4) +
              0.1 * std::sin(2 * std::numbers::pi * 15000.0 * t) + noise(rng);
  }
  return x;
}


// Subframe k holds time slots 8k..8k+7; each band's 8 samples get their own
// quantizer.
Subframe quantized_subframe(const std::vector<SubbandBlock>& analysed, unsigned k) {
  Subframe s = blank_subframe(static_cast<unsigned>(analysed.size()), kQmfBands);
  for (std::size_t c = 0; c < analysed.size(); ++c) {
    const SubbandBlock& sb = analysed[c];
    for (std::size_t b = 0; b < kQmfBands; ++b) {
      double slice[kSlotsPerSubframe];
      for (std::size_t i = 0; i < kSlotsPerSubframe; ++i)
        slice[i] = sb.samples[(k * kSlotsPerSubframe + i) * kQmfBands + b];
      const QuantizerChoice q = choose_baseline_quantizer(slice, kSlotsPerSubframe, 20, 26);
      s.abits[c][b] = q.abits;
      s.scale[c][b] = q.scale_index;
      for (std::size_t i = 0; i < kSlotsPerSubframe; ++i) s.audio[c][b * kSlotsPerSubframe + i] = quantize(slice[i], q);
    }
  }
  return s;
}

std::vector<std::uint8_t> encode(const std::vector<std::vector<double>>& x) {
  std::vector<std::unique_ptr<QmfAnalysisBank>> banks;
  for (std::size_t c = 0; c < kChannels; ++c) banks.push_back(std::make_unique<QmfAnalysisBank>());
  std::vector<std::uint8_t> stream;
  for (std::size_t n = 0; n < kFrames; ++n) {
    std::vector<SubbandBlock> analysed;
    for (std::size_t c = 0; c < kChannels; ++c)
      analysed.push_back(analyse_frame(*banks[c], x[c].data() + n * kQmfFrameSamples));
    CoreFrame f;
    f.header.amode = 2;
    f.header.sample_rate = kRate;
    f.header.bitrate = 1411200;
    f.header.frame_bytes = kFrameBytes;
    f.header.filts = 1;
    f.header.vernum = 7;
    f.header.pcm_bits = 24;
    f.header.lff = 0;
    f.payload.header = legacy_primary_header(kChannels);
    f.payload.lff = 0;
    for (unsigned k = 0; k < kSubframes; ++k) f.payload.subframes.push_back(quantized_subframe(analysed, k));
    write_frame(f, kFrameBytes, FrameKind::stereo);
    stream.insert(stream.end(), f.bytes.begin(), f.bytes.end());
  }
  return stream;
}

struct Fit {
  double gain_db;
  double snr_db;
};

// Least-squares gain of the decoded channel against the input `lag` samples
// earlier, and the SNR of what that gain leaves over.
Fit fit(const std::vector<double>& x, const std::vector<float>& y, std::size_t lag) {
  double xy = 0.0, xx = 0.0;
  for (std::size_t i = lag; i < y.size(); ++i) {
    xy += x[i - lag] * y[i];
    xx += x[i - lag] * x[i - lag];
  }
  const double g = xy / xx;
  double err = 0.0;
  for (std::size_t i = lag; i < y.size(); ++i) {
    const double e = y[i] - g * x[i - lag];
    err += e * e;
  }
  return {20.0 * std::log10(g), 10.0 * std::log10(g * g * xx / err)};
}

TEST(QmfRoundTrip, FfmpegReturnsTheInputAtUnityGain480SamplesLate) {
  if (!test::program_available("ffmpeg") || !test::program_available("ffprobe"))
    GTEST_SKIP() << "ffmpeg not installed";
  const auto x = make_input();
  const auto file = test::fresh_test_dir("qmf-roundtrip") / "stream.dts";
  test::write_bytes(file, encode(x));

  const test::DecodedAudio decoded = test::decode_with_ffmpeg(file, static_cast<int>(kChannels));
  ASSERT_TRUE(decoded.clean()) << decoded.run.err;
  ASSERT_EQ(decoded.channels.size(), kChannels);
  for (std::size_t c = 0; c < kChannels; ++c) {
    SCOPED_TRACE(c);
    ASSERT_EQ(decoded.channels[c].size(), kFrames * kQmfFrameSamples);
    const Fit aligned = fit(x[c], decoded.channels[c], kDelay);
    EXPECT_LT(std::fabs(aligned.gain_db), 0.01);
    EXPECT_GT(aligned.snr_db, 70.0);
    // Exactly that delay: one sample either way is far worse.
    for (std::size_t lag : {kDelay - 1, kDelay + 1})
      EXPECT_LT(fit(x[c], decoded.channels[c], lag).snr_db, 30.0) << lag;
    std::printf("channel %zu: gain %+.5f dB, SNR %.1f dB\n", c, aligned.gain_db, aligned.snr_db);
  }
}

}  // namespace
}  // namespace tavrin
