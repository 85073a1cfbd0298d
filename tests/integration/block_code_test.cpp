// Low bit allocations (ABITS 1..7 as block codes) and the 24+8 subframe
// layout with transient modes, in hand-built streams: the decoders must give
// back exactly the quantization noise the encoder put in, so a wrong digit
// order, word width, subsubframe order or scale-factor split shows up as a
// decoded SNR far from the one measured on the subband samples.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "alloc/plan_payload.h"
#include "bitstream/cbr_sizer.h"
#include "bitstream/frame.h"
#include "dsp/qmf.h"
#include "dsp/quantizer.h"
#include "support/decoders.h"
#include "support/measure.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kFrames = 12;
constexpr unsigned kBands = 32;

struct Built {
  std::vector<std::uint8_t> stream;
  double subband_snr_db[2] = {0.0, 0.0};  // per channel
};

// Quantizes one band's `count` samples at (abits, the smallest scale that
// fits them) into `index`; adds the error and signal energies.
void code_part(const double* x, std::size_t count, unsigned abits, std::uint8_t& scale, std::int32_t* index,
               double& signal, double& error) {
  double peak = 0.0;
  for (std::size_t k = 0; k < count; ++k) peak = std::max(peak, std::abs(x[k]));
  const QuantizerChoice q = quantizer_at(peak, abits);
  scale = q.scale_index;
  for (std::size_t k = 0; k < count; ++k) {
    index[k] = quantize_index(x[k], q);
    const double e = x[k] - index[k] * q.quantum;
    signal += x[k] * x[k];
    error += e * e;
  }
}

// Every band of every frame at `abits`; subframe 0 carries 24 samples per
// band (SSC 3) with TMODE cycling 0, 1, 2 over the bands, subframe 1 the
// last 8 (SSC 1).
Built build_stream(const std::vector<std::vector<double>>& pcm, unsigned abits) {
  CbrFrameSizer sizer = make_cbr_frame_sizer(48000, 1411200, 1024);
  auto banks = std::make_unique<QmfAnalysisBank[]>(2);
  Built built;
  double signal[2] = {0.0, 0.0}, error[2] = {0.0, 0.0};
  for (std::size_t n = 0; n < kFrames; ++n) {
    std::vector<SubbandBlock> sub;
    for (int c = 0; c < 2; ++c) sub.push_back(analyse_frame(banks[c], pcm[c].data() + n * 1024));
    const std::uint16_t size = next_frame_bytes(sizer);
    CoreFrame f;
    set_encoder_header(f.header, 2, 48000, 1411200, size);
    f.payload.header = legacy_primary_header(2);
    f.payload.header.subfs = 2;
    f.payload.block_codes = true;
    Subframe first = blank_subframe(2, kBands, 3), last = blank_subframe(2, kBands, 1);
    for (int c = 0; c < 2; ++c) {
      for (unsigned b = 0; b < kBands; ++b) {
        double x[32];
        for (unsigned t = 0; t < 32; ++t) x[t] = sub[c].samples[t * kBands + b];
        // A transient at subsubframe t: SCALE for the samples before it,
        // SCALE2 from it on.
        const unsigned t = b % 3;
        std::int32_t index[32];
        first.abits[c][b] = static_cast<std::uint8_t>(abits);
        first.tmode[c][b] = static_cast<std::uint8_t>(t);
        if (t == 0) {
          code_part(x, 24, abits, first.scale[c][b], index, signal[c], error[c]);
        } else {
          code_part(x, 8 * t, abits, first.scale[c][b], index, signal[c], error[c]);
          code_part(x + 8 * t, 24 - 8 * t, abits, first.scale2[c][b], index + 8 * t, signal[c], error[c]);
        }
        for (unsigned j = 0; j < 3; ++j)
          for (unsigned k = 0; k < 8; ++k) first.audio[c][(j * kBands + b) * 8 + k] = index[j * 8 + k];
        last.abits[c][b] = static_cast<std::uint8_t>(abits);
        code_part(x + 24, 8, abits, last.scale[c][b], &last.audio[c][b * 8], signal[c], error[c]);
      }
    }
    f.payload.subframes = {first, last};
    write_frame(f, size, FrameKind::stereo);
    built.stream.insert(built.stream.end(), f.bytes.begin(), f.bytes.end());
  }
  for (int c = 0; c < 2; ++c) built.subband_snr_db[c] = 10.0 * std::log10(signal[c] / error[c]);
  return built;
}

TEST(BlockCodes, DecodersGiveBackTheQuantizationNoisePutIn) {
  for (const char* tool : {"ffmpeg", "dcadec"})
    if (!test::program_available(tool)) GTEST_SKIP() << tool << " not installed";
  const fs::path dir = test::fresh_test_dir("block-codes");
  std::mt19937 rng(11);
  std::normal_distribution<double> noise(0.0, 0.05);
  std::vector<std::vector<double>> pcm(2, std::vector<double>(kFrames * 1024));
  for (std::size_t i = 0; i < pcm[0].size(); ++i) {
    // Bursts every 4000 samples give the transient modes something to split.
    const double burst = (i % 4000) > 3000 ? 4.0 : 1.0;
    pcm[0][i] = burst * noise(rng) + 0.2 * std::sin(0.05 * static_cast<double>(i));
    pcm[1][i] = burst * noise(rng);
  }
  for (unsigned abits = 1; abits <= 9; ++abits) {
    SCOPED_TRACE("ABITS " + std::to_string(abits));
    const Built built = build_stream(pcm, abits);
    const fs::path file = dir / ("abits" + std::to_string(abits) + ".dts");
    test::write_bytes(file, built.stream);
    const test::DecodedAudio ff = test::decode_with_ffmpeg(file, 2);
    ASSERT_TRUE(ff.clean()) << ff.run.err;
    // libdca's bank for FILTS 1 is not the one the encoder inverts, so it
    // only has to read every frame.
    const test::DcadecResult dca = test::run_dcadec(file, "null");
    EXPECT_TRUE(dca.clean()) << dca.errors;
    EXPECT_EQ(dca.frames_decoded, static_cast<long>(kFrames));
    for (int c = 0; c < 2; ++c) {
      const double pcm_snr = test::compare(pcm[c], ff.channels[c], 480).snr_db;
      EXPECT_NEAR(pcm_snr, built.subband_snr_db[c], 1.0) << "channel " << c;
      std::printf("[ blocks   ] ABITS %u channel %d: subband SNR %.2f dB, decoded %.2f dB\n", abits, c,
                  built.subband_snr_db[c], pcm_snr);
    }
  }
}

TEST(BlockCodes, WordsPackTheFirstSampleLowest) {
  struct Case {
    unsigned abits;
    std::int32_t four[4];
    std::uint32_t word;
  };
  const Case cases[] = {
      {1, {-1, -1, -1, -1}, 0}, {1, {1, -1, -1, -1}, 2}, {1, {0, 0, 0, 1}, 1 + 3 + 9 + 2 * 27}, {1, {1, 1, 1, 1}, 80},
      {7, {12, -12, 0, 0}, 24 + 0 * 25 + 12 * 625 + 12 * 15625}, {5, {6, 6, 6, 6}, 13 * 13 * 13 * 13 - 1},
  };
  for (const Case& c : cases) EXPECT_EQ(block_code_word(c.four, c.abits), c.word) << c.abits;
  for (unsigned a = 1; a <= 7; ++a) {
    const BlockCodeFormat f = block_code_format(a);
    EXPECT_LT(std::pow(f.levels, 4) - 1, std::pow(2.0, f.width)) << a;
    EXPECT_GE(std::pow(f.levels, 4), std::pow(2.0, f.width - 1)) << a;
  }
  const std::int32_t outside[4] = {0, 0, 2, 0};
  EXPECT_THROW(block_code_word(outside, 1), std::invalid_argument);
}

}  // namespace
}  // namespace tavrin
