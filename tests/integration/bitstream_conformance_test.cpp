// Whole 5.1 streams built from synthetic subband data through the bitstream
// writers alone, judged by the black-box decoders: every frame must decode
// cleanly, whatever the audio sounds like. (Stereo frames are judged the same
// way on the encoder's real output in stereo_encode_test.cpp.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "bitstream/cbr_sizer.h"
#include "bitstream/frame.h"
#include "dsp/quantizer.h"
#include "support/decoders.h"

namespace tavrin {
namespace {

constexpr int kFrames = 8;
constexpr unsigned kSubframes = 4;

struct StreamCase {
  unsigned amode;
  unsigned channels;  // primary channels
  bool lfe;
  int sample_rate;
  int bitrate;
};

PrimaryHeader make_primary_header(unsigned channels) {
  PrimaryHeader h;
  h.subfs = kSubframes;
  for (unsigned c = 0; c < channels; ++c) {
    const auto subs = static_cast<std::uint8_t>(c % 2 == 0 ? 32 : 27);
    h.subs.push_back(subs);
    h.vqsub.push_back(subs);  // no high-frequency VQ bands
    h.joinx.push_back(0);
    h.thuff.push_back(0);
    h.shuff.push_back(static_cast<std::uint8_t>(c % 2 == 0 ? 6 : 5));
    h.bhuff.push_back(static_cast<std::uint8_t>(c % 2 == 0 ? 6 : 5));
    h.sel.push_back({1, 3, 3, 3, 3, 7, 7, 7, 7, 7});
  }
  return h;
}

// One subframe of 8 samples per subband: a mix of silent bands and bands
// quantized at ABITS spread over 8..26 (8..15 where BHUFF 5 caps it).
Subframe make_subframe(const PrimaryHeader& h, unsigned frame, unsigned k, bool lfe) {
  const auto channels = static_cast<unsigned>(h.subs.size());
  Subframe s;
  s.ssc = 1;
  for (unsigned c = 0; c < channels; ++c) {
    const std::size_t bands = h.subs[c];
    s.pmode.emplace_back(bands, 0);
    s.pvq.emplace_back(bands, 0);
    s.abits.emplace_back(bands, 0);
    s.tmode.emplace_back(bands, 0);
    s.scale.emplace_back(bands, 0);
    s.scale2.emplace_back(bands, 0);
    s.audio.emplace_back(bands * 8, 0);
    const unsigned max_abits = h.bhuff[c] == 5 ? 15 : 26;
    for (std::size_t b = 0; b < bands; ++b) {
      const unsigned pattern = static_cast<unsigned>(b) * 7 + c * 3 + k * 5 + frame;
      if (pattern % 3 != 0) continue;  // silent band
      const double amplitude = 3000.0 * std::exp(-0.15 * static_cast<double>(b)) + 0.5 * (pattern % 5);
      double x[8];
      for (int i = 0; i < 8; ++i)
        x[i] = amplitude * std::sin(0.7 * i + 0.3 * static_cast<double>(b) + static_cast<double>(frame * 4 + k));
      const unsigned low = 8 + pattern % (max_abits - 7);
      const QuantizerChoice q = choose_baseline_quantizer(x, 8, low, max_abits);
      if (q.abits == 0) continue;
      s.abits[c][b] = q.abits;
      s.scale[c][b] = q.scale_index;
      for (std::size_t i = 0; i < 8; ++i) s.audio[c][b * 8 + i] = quantize(x[i], q);
      if (pattern % 4 == 0) {  // some predicted bands, to exercise PVQ
        s.pmode[c][b] = 1;
        s.pvq[c][b] = static_cast<std::uint16_t>((pattern * 97) % 4096);
      }
    }
  }
  if (lfe) {
    s.lfe = {static_cast<std::int8_t>(k * 10), -5, 127, -128};
    s.lfe_scale = static_cast<std::uint8_t>(40 + k);
  }
  return s;
}

// Silences the band with the most audio bits until the frame fits.
void trim_to_fit(CoreFrame& f, std::uint32_t target_bytes) {
  while (104 + payload_bit_count(f.payload) > std::uint64_t{target_bytes} * 8) {
    Subframe* best_sf = nullptr;
    std::size_t best_c = 0, best_b = 0;
    unsigned best_abits = 0;
    for (Subframe& s : f.payload.subframes)
      for (std::size_t c = 0; c < s.abits.size(); ++c)
        for (std::size_t b = 0; b < s.abits[c].size(); ++b)
          if (s.abits[c][b] > best_abits) {
            best_abits = s.abits[c][b];
            best_sf = &s;
            best_c = c;
            best_b = b;
          }
    ASSERT_NE(best_sf, nullptr);
    best_sf->abits[best_c][best_b] = 0;
    best_sf->scale[best_c][best_b] = 0;
    best_sf->pmode[best_c][best_b] = 0;
    best_sf->pvq[best_c][best_b] = 0;
    for (std::size_t i = 0; i < 8; ++i) best_sf->audio[best_c][best_b * 8 + i] = 0;
  }
}

struct BuiltStream {
  std::vector<std::uint8_t> bytes;
  std::vector<std::uint32_t> sizes;
  std::uint64_t active_bands = 0;
};

BuiltStream build_stream(const StreamCase& sc) {
  BuiltStream out;
  CbrFrameSizer sizer = make_cbr_frame_sizer(sc.sample_rate, sc.bitrate, 1024);
  for (unsigned n = 0; n < kFrames; ++n) {
    const std::uint16_t size = next_frame_bytes(sizer);
    CoreFrame f;
    f.header.amode = static_cast<std::uint8_t>(sc.amode);
    f.header.sample_rate = static_cast<std::uint32_t>(sc.sample_rate);
    f.header.bitrate = static_cast<std::uint32_t>(sc.bitrate);
    f.header.frame_bytes = size;
    f.header.filts = 1;
    f.header.vernum = 7;
    f.header.pcm_bits = 24;
    f.header.lff = sc.lfe ? 2 : 0;
    f.payload.header = make_primary_header(sc.channels);
    f.payload.lff = f.header.lff;
    for (unsigned k = 0; k < kSubframes; ++k)
      f.payload.subframes.push_back(make_subframe(f.payload.header, n, k, sc.lfe));
    trim_to_fit(f, size);
    write_frame(f, size, FrameKind::multichannel);
    EXPECT_EQ(f.bytes.size(), size);
    for (const Subframe& s : f.payload.subframes)
      for (const auto& ch : s.abits)
        for (std::uint8_t a : ch) out.active_bands += a != 0;
    out.bytes.insert(out.bytes.end(), f.bytes.begin(), f.bytes.end());
    out.sizes.push_back(size);
  }
  return out;
}

class BitstreamConformance : public ::testing::TestWithParam<StreamCase> {};

TEST_P(BitstreamConformance, DecodersAcceptEveryFrame) {
  for (const char* tool : {"ffmpeg", "ffprobe", "dcadec"})
    if (!test::program_available(tool)) GTEST_SKIP() << tool << " not installed";
  const StreamCase sc = GetParam();
  const BuiltStream stream = build_stream(sc);
  ASSERT_FALSE(HasFailure());
  // Enough audio survives the trimming to make the check meaningful.
  EXPECT_GT(stream.active_bands, kFrames * kSubframes * sc.channels * 2u);

  const auto dir = test::fresh_test_dir("bitstream-conformance");
  const auto file = dir / "stream.dts";
  test::write_bytes(file, stream.bytes);
  std::uint64_t total = 0;
  for (std::uint32_t s : stream.sizes) total += s;
  EXPECT_EQ(std::filesystem::file_size(file), total);

  const unsigned decoded_channels = sc.channels + (sc.lfe ? 1 : 0);
  const test::StreamInfo info = test::probe_stream(file);
  ASSERT_TRUE(info.ok) << info.run.err;
  EXPECT_EQ(info.codec_name, "dts");
  EXPECT_EQ(info.sample_rate, sc.sample_rate);
  EXPECT_EQ(info.channels, static_cast<int>(decoded_channels));
  EXPECT_EQ(info.bit_rate, sc.bitrate);

  const test::DecodedAudio decoded = test::decode_with_ffmpeg(file, static_cast<int>(decoded_channels));
  EXPECT_EQ(decoded.run.exit_status, 0);
  EXPECT_EQ(decoded.run.err, "");
  ASSERT_EQ(decoded.channels.size(), decoded_channels);
  for (const auto& ch : decoded.channels) EXPECT_EQ(ch.size(), std::size_t{kFrames} * 1024);

  const test::DcadecResult dca = test::run_dcadec(file, "wav6");
  EXPECT_EQ(dca.run.exit_status, 0);
  EXPECT_EQ(dca.errors, "");
  EXPECT_EQ(dca.frames_decoded, kFrames);
  EXPECT_GT(dca.run.out.size(), 44u);  // a WAV header and some audio
}

// The checks above must be able to fail: damaging the side information of
// one frame has to show up in both decoders' reports.
TEST(BitstreamConformanceControl, DamagedFrameIsNoticed) {
  for (const char* tool : {"ffmpeg", "dcadec"})
    if (!test::program_available(tool)) GTEST_SKIP() << tool << " not installed";
  BuiltStream stream = build_stream(StreamCase{9, 5, true, 48000, 768000});
  ASSERT_FALSE(HasFailure());
  for (std::size_t i = 14; i < 18; ++i) stream.bytes[stream.sizes[0] + i] ^= 0xFF;
  const auto file = test::fresh_test_dir("bitstream-damaged") / "stream.dts";
  test::write_bytes(file, stream.bytes);
  const test::DecodedAudio decoded = test::decode_with_ffmpeg(file, 6);
  EXPECT_FALSE(decoded.clean() && decoded.channels[0].size() == std::size_t{kFrames} * 1024);
  const test::DcadecResult dca = test::run_dcadec(file, "wav6");
  EXPECT_FALSE(dca.clean() && dca.frames_decoded == kFrames);
}

INSTANTIATE_TEST_SUITE_P(
    Streams, BitstreamConformance,
    ::testing::Values(StreamCase{9, 5, true, 48000, 768000}, StreamCase{9, 5, true, 44100, 1411200},
                      StreamCase{9, 5, true, 44100, 768000}),
    [](const ::testing::TestParamInfo<StreamCase>& p) {
      return "five_one_" + std::to_string(p.param.sample_rate) + "_" + std::to_string(p.param.bitrate);
    });

}  // namespace
}  // namespace tavrin
