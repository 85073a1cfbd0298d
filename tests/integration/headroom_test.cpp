// Near-full-scale input whose subband samples exceed what decoders carry.
// A hand-built stream shows where the limit sits; the encoder then has to
// lower the level of such input instead of letting decoders clip it.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "alloc/plan_payload.h"
#include "bitstream/cbr_sizer.h"
#include "bitstream/frame.h"
#include "dsp/adpcm.h"
#include "support/encode.h"
#include "support/wav_writer.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;

// Stereo frames whose band 0 holds the one dequantized value `value` in
// every sample of both channels: the decoded output settles at a level that
// is proportional to what the decoder carried. FILTS 0: both decoders
// share that bank.
std::vector<std::uint8_t> constant_band_stream(std::int64_t value) {
  constexpr unsigned kAbits = 16, kScale = 62;
  const std::int64_t factor = decoder_dequantize_factor(kAbits, kScale);
  const auto q = static_cast<std::int32_t>((value << 22) / factor);
  CbrFrameSizer sizer = make_cbr_frame_sizer(48000, 1411200, 1024);
  std::vector<std::uint8_t> stream;
  for (int n = 0; n < 24; ++n) {
    const std::uint16_t size = next_frame_bytes(sizer);
    CoreFrame f;
    f.header.amode = 2;
    f.header.sample_rate = 48000;
    f.header.bitrate = 1411200;
    f.header.frame_bytes = size;
    f.header.vernum = 7;
    f.header.pcm_bits = 24;
    f.payload.header = legacy_primary_header(2);  // four subframes, 32 linear-coded bands
    for (int k = 0; k < 4; ++k) {
      Subframe s = blank_subframe(2, 32);
      for (int c = 0; c < 2; ++c) {
        s.abits[c][0] = kAbits;
        s.scale[c][0] = kScale;
        for (int i = 0; i < 8; ++i) s.audio[c][i] = q;
      }
      f.payload.subframes.push_back(s);
    }
    write_frame(f, size, FrameKind::stereo);
    stream.insert(stream.end(), f.bytes.begin(), f.bytes.end());
  }
  return stream;
}

double settled_level(const std::vector<float>& decoded) {
  double sum = 0.0;
  for (std::size_t i = 16384; i < decoded.size(); ++i) sum += decoded[i];
  return sum / static_cast<double>(decoded.size() - 16384);
}

// ffmpeg clips every subband sample to 24 bits (2^23 gives a level of 1.0
// in band 0); libdca carries larger values. A stream that must play
// everywhere cannot hold more than 2^23.
TEST(Headroom, DecodersDifferAboveTwentyFourBits) {
  for (const char* tool : {"ffmpeg", "dcadec"})
    if (!test::program_available(tool)) GTEST_SKIP() << tool << " not installed";
  const fs::path dir = test::fresh_test_dir("headroom-probe");
  std::vector<double> ffmpeg_level, dcadec_level;
  const std::vector<std::int64_t> values = {4'000'000, 8'000'000, 11'000'000};
  for (const std::int64_t value : values) {
    const fs::path file = dir / (std::to_string(value) + ".dts");
    test::write_bytes(file, constant_band_stream(value));
    const test::DecodedAudio ff = test::decode_with_ffmpeg(file, 2);
    ASSERT_TRUE(ff.clean()) << ff.run.err;
    ffmpeg_level.push_back(settled_level(ff.channels[0]));
    const test::DcadecResult dca = test::run_dcadec(file, "float");
    ASSERT_TRUE(dca.clean()) << dca.errors;
    dcadec_level.push_back(settled_level(test::dcadec_float_channel(dca.run.out, 0)));
  }
  for (std::size_t i = 1; i < values.size(); ++i) {
    const double ratio = static_cast<double>(values[i]) / static_cast<double>(values[0]);
    EXPECT_NEAR(dcadec_level[i] / dcadec_level[0], ratio, 1e-3) << values[i];
  }
  EXPECT_NEAR(ffmpeg_level[1] / ffmpeg_level[0], 2.0, 1e-3);
  EXPECT_NEAR(ffmpeg_level[2], 1.0, 1e-3) << "ffmpeg no longer clips at 2^23";
}

// Naive squares: below -3 dBFS or with their energy split between bands
// they fit and come back at unity gain; louder, they come back lowered
// by the amount the summary reports, and clean.
TEST(Headroom, SquaresComeBackCleanAndAtMostAsLoudAsDecodersCarry) {
  if (!test::program_available("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  const fs::path dir = test::fresh_test_dir("headroom-squares");
  const std::size_t n = 48000 * 2, onset = 4096;
  struct Square {
    double freq;
    double dbfs;
    bool lowered;  // the input needs its level lowered
  };
  for (const Square sq : {Square{50, -0.26, true}, Square{1000, -0.26, true}, Square{2000, -0.26, true},
                          Square{4500, -0.26, false}, Square{1000, -3.0, false}}) {
    SCOPED_TRACE(std::to_string(sq.freq) + " Hz " + std::to_string(sq.dbfs) + " dBFS");
    const double amplitude = std::pow(10.0, sq.dbfs / 20.0);
    std::vector<double> x(n);
    for (std::size_t i = 0; i < n; ++i)
      x[i] = std::sin(2 * M_PI * sq.freq * static_cast<double>(i) / 48000 + 0.1) >= 0 ? amplitude : -amplitude;
    const fs::path wav = dir / "square.wav";
    write_wav_file(wav.string(), {x, x}, 48000, SampleFormat::s24le);
    const test::Encoded e = test::encode_file(wav, {48000, 1411200, n, 2, ""});
    const std::string note = "Headroom: level lowered by up to ";
    const auto at = e.run.out.find(note);
    EXPECT_EQ(at != std::string::npos, sq.lowered) << e.run.out;
    if (e.decoded.channels.size() != 2) continue;
    // After the onset, the level the output settled at, and the SNR against
    // the source at that level.
    const std::vector<double> source(x.begin() + onset, x.end());
    const std::vector<float> output(e.decoded.channels[0].begin() + onset, e.decoded.channels[0].end());
    const test::Match level = test::compare(source, output, test::kCodecDelay);
    std::vector<double> scaled = source;
    for (double& v : scaled) v *= std::pow(10.0, level.gain_db / 20.0);
    const test::Match at_level = test::compare(scaled, output, test::kCodecDelay);
    EXPECT_GE(at_level.snr_db, 60.0);
    if (!sq.lowered) {
      EXPECT_NEAR(level.gain_db, 0.0, 0.05);
      continue;
    }
    const double reported = std::stod(e.run.out.substr(at + note.size()));
    EXPECT_LT(level.gain_db, -1.0);
    EXPECT_LE(-level.gain_db, reported + 0.01);
  }
}

}  // namespace
}  // namespace tavrin
