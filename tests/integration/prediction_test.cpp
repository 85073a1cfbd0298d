// ADPCM prediction as the decoders see it: they reconstruct predicted bands
// exactly as the encoder's model says, nothing drifts over a long tone, and
// prediction pays on stationary tonal material without costing anything
// elsewhere.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "alloc/legacy_encoder.h"
#include "alloc/span24_encoder.h"
#include "bitstream/cbr_sizer.h"
#include "dsp/adpcm.h"
#include "dsp/qmf.h"
#include "support/encode.h"
#include "support/signals.h"
#include "support/wav_writer.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;
using test::Channels;
using test::kCodecDelay;

// Sustained harmonic tones, one partial a band: the material prediction is
// for.
double harmonic(double f0, double t, double phase) {
  double v = 0.0;
  for (int h = 1; h < 20; ++h) v += 0.15 / h * std::sin(2 * M_PI * f0 * h * t + phase * h);
  return v;
}

// A bass pair under a harmonic series falling with 1/h^2: most of its
// energy lies low.
double low_heavy(double bass, double f0, double t, double phase) {
  double v = 0.35 * std::sin(2 * M_PI * bass * t) + 0.25 * std::sin(2 * M_PI * bass * 1.5 * t + 0.5);
  for (int h = 1; f0 * h < 20000.0; ++h) v += 0.2 / (h * h) * std::sin(2 * M_PI * f0 * h * t + phase * h);
  return v;
}

Channels make(std::size_t n, const std::function<double(std::size_t, double)>& f) {
  Channels c(2, std::vector<double>(n));
  for (std::size_t ch = 0; ch < 2; ++ch)
    for (std::size_t i = 0; i < n; ++i) c[ch][i] = f(ch, static_cast<double>(i) / 48000.0);
  return test::as_stored(c, SampleFormat::s24le);
}

// ---- the encoder in the test's own hands --------------------------------------

struct Encoding {
  std::vector<std::uint8_t> bytes;
  std::vector<CoreFrame> frames;  // payloads and headers, bytes dropped
};

// The legacy encoder, or (span24) the 24+8 encoder's production settings.
Encoding encode_in_process(const Channels& pcm, bool span24 = false) {
  Encoding e;
  auto banks = std::make_unique<QmfAnalysisBank[]>(2);
  CbrFrameSizer sizer = make_cbr_frame_sizer(48000, 768000, 1024);
  const LegacyEncoderConfig config;
  LegacyEncoderState state;
  const Span24Config span24_config;
  Span24State span24_state;
  std::vector<double> block(1024);
  for (std::size_t at = 0; at + 1024 <= pcm[0].size(); at += 1024) {
    SubbandBlock sub[2];
    for (int c = 0; c < 2; ++c) {
      std::copy(pcm[c].begin() + static_cast<std::ptrdiff_t>(at), pcm[c].begin() + static_cast<std::ptrdiff_t>(at + 1024),
                block.begin());
      sub[c] = analyse_frame(banks[c], block.data());
    }
    const std::vector<const double*> views = {sub[0].samples.data(), sub[1].samples.data()};
    CoreFrame f = span24 ? encode_span24_frame(views, 2, {48000, 768000}, next_frame_bytes(sizer), span24_config,
                                               span24_state)
                               .frame
                         : encode_legacy_frame(views, 2, {48000, 768000}, next_frame_bytes(sizer), config, state);
    e.bytes.insert(e.bytes.end(), f.bytes.begin(), f.bytes.end());
    f.bytes.clear();
    e.frames.push_back(std::move(f));
  }
  return e;
}

// What a decoder reconstructs from the frames, by the encoder's own model
// of it, through the perfect-reconstruction synthesis bank.
Channels model_decode(const Encoding& e) {
  const QmfKernel& kernel = qmf_kernel();
  Channels out(2);
  std::vector<AdpcmHistory> history(64);
  QmfReferenceSynthesis synthesis[2] = {make_qmf_reference_synthesis(kernel), make_qmf_reference_synthesis(kernel)};
  for (const CoreFrame& f : e.frames) {
    if (f.header.hflag == 0) history.assign(64, AdpcmHistory{});
    for (const Subframe& sub : f.payload.subframes) {
      for (std::size_t j = 0; j < sub.ssc; ++j) {
        double slots[2][8][32];
        for (std::size_t c = 0; c < 2; ++c)
          for (std::size_t b = 0; b < 32; ++b) {
            const unsigned scale = sub.tmode[c][b] != 0 && j >= sub.tmode[c][b] ? sub.scale2[c][b] : sub.scale[c][b];
            for (std::size_t k = 0; k < 8; ++k) {
              std::int64_t y = decoder_dequantize(sub.audio[c][(j * 32 + b) * 8 + k], sub.abits[c][b], scale);
              if (sub.pmode[c][b] != 0)
                y = clip_decoder_sample(y + decoder_prediction(history[c * 32 + b], kAdpcmVq[sub.pvq[c][b]]));
              push_history(history[c * 32 + b], static_cast<std::int32_t>(y));
              slots[c][k][b] = static_cast<double>(y);
            }
          }
        for (std::size_t c = 0; c < 2; ++c)
          for (std::size_t k = 0; k < 8; ++k) {
            double pcm[32];
            qmf_synthesis_step(synthesis[c], qmf_perfect_prototype(), kernel, slots[c][k], pcm);
            for (double v : pcm) out[c].push_back(v / kQmfInputScale);
          }
      }
    }
  }
  return out;
}

double agreement_db(const std::vector<double>& a, const std::vector<float>& b) {
  double aa = 0.0, ee = 0.0;
  for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
    aa += a[i] * a[i];
    ee += (a[i] - b[i]) * (a[i] - b[i]);
  }
  return 10.0 * std::log10(aa / std::max(ee, 1e-300));
}

// Both stereo encoders that predict: the legacy one (subframes of 8) and
// the 24+8 one (subframes of 24 with transient modes, and of 8).
TEST(Prediction, DecodersReconstructWhatTheEncoderModels) {
  for (const bool span24 : {false, true}) {
  SCOPED_TRACE(span24 ? "span24" : "legacy");
  const fs::path dir = test::fresh_test_dir("prediction-model");
  const Channels source = make(48000 * 2, [](std::size_t ch, double t) { return harmonic(880.0 + 110.0 * ch, t, 0.3); });
  Encoding e = encode_in_process(source, span24);
  std::size_t predicted = 0;
  for (const CoreFrame& f : e.frames)
    for (const Subframe& sub : f.payload.subframes)
      for (const auto& bands : sub.pmode)
        for (auto p : bands) predicted += p;
  ASSERT_GT(predicted, 1000u);

  const fs::path stream = dir / "tones.dts";
  test::write_bytes(stream, e.bytes);
  const Channels model = model_decode(e);
  const test::DecodedAudio ffmpeg = test::decode_with_ffmpeg(stream, 2);
  ASSERT_TRUE(ffmpeg.clean()) << ffmpeg.run.err;
  for (std::size_t c = 0; c < 2; ++c) {
    const double db = agreement_db(model[c], ffmpeg.channels[c]);
    EXPECT_GT(db, 100.0) << c;
    std::printf("[ model    ] channel %zu: ffmpeg agrees with the encoder's model to %.1f dB\n", c, db);
  }

  // libdca reconstructs the perfect-reconstruction bank wrongly, so both
  // decoders are compared on the other bank (FILTS 0), which they share.
  std::vector<std::uint8_t> other = e.bytes;
  for (std::size_t at = 0; at + 12 <= other.size();) {
    const std::size_t size = ((other[at + 5] & 3u) << 12 | other[at + 6] << 4 | other[at + 7] >> 4) + 1u;
    other[at + 11] &= 0x7F;  // FILTS
    at += size;
  }
  const fs::path stream0 = dir / "tones-filts0.dts";
  test::write_bytes(stream0, other);
  const test::DecodedAudio ffmpeg0 = test::decode_with_ffmpeg(stream0, 2);
  const test::DcadecResult dca = test::run_dcadec(stream0, "float");
  ASSERT_TRUE(ffmpeg0.clean() && dca.clean()) << dca.errors;
  for (std::size_t c = 0; c < 2; ++c) {
    const std::vector<float> d = test::dcadec_float_channel(dca.run.out, c);
    const std::vector<double> f(ffmpeg0.channels[c].begin(), ffmpeg0.channels[c].end());
    const double db = agreement_db(f, d);
    EXPECT_GT(db, 50.0) << c;
    std::printf("[ model    ] channel %zu: dcadec agrees with ffmpeg to %.1f dB\n", c, db);
  }
  }
}

// Ten minutes of a steady harmonic tone: the last minute decodes as well as
// the first; no error builds up in the prediction history.
TEST(Prediction, LongToneDoesNotDrift) {
  const fs::path dir = test::fresh_test_dir("prediction-drift");
  constexpr std::size_t kRate = 48000, kSeconds = 600, kPeriod = 4800;
  // 880 Hz repeats every 600 samples and 990 Hz every 1600: one common
  // period of both is all the ten minutes need.
  const Channels period = make(kPeriod, [](std::size_t ch, double t) { return harmonic(880.0 + 110.0 * ch, t, 0.3); });
  const auto sample = [&period](std::size_t ch, std::size_t i) { return period[ch][i % kPeriod]; };
  const fs::path input = dir / "tone.pcm", stream = dir / "tone.dts";
  {
    const std::vector<std::uint8_t> bytes = encode_pcm_interleaved(period, SampleFormat::s24le);
    std::ofstream out(input, std::ios::binary);
    for (std::size_t i = 0; i < kRate * kSeconds / kPeriod; ++i)
      out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  const auto r = test::run_tavrin({input.string(), stream.string(), "--raw", "--pcm-format", "s24le", "--sample-rate",
                                   "48000", "--layout", "2.0", "-q"});
  ASSERT_EQ(r.exit_status, 0) << r.err;
  fs::remove(input);

  // The decoded stream is read as it comes; only the two minutes are scored.
  const std::string command = "ffmpeg -nostdin -v error -f dts -i '" + stream.string() + "' -f f32le -";
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  ASSERT_NE(pipe, nullptr);
  double signal[2] = {}, noise[2] = {};
  float frame[2];
  for (std::size_t i = 0; std::fread(frame, sizeof frame, 1, pipe.get()) == 1; ++i) {
    if (i < kCodecDelay) continue;
    const std::size_t at = i - kCodecDelay;
    const int minute = at < kRate * 60 ? 0 : at >= kRate * (kSeconds - 60) && at < kRate * kSeconds ? 1 : -1;
    if (minute < 0) continue;
    for (std::size_t ch = 0; ch < 2; ++ch) {
      const double x = sample(ch, at), e = frame[ch] - x;
      signal[minute] += x * x;
      noise[minute] += e * e;
    }
  }
  const double first = 10.0 * std::log10(signal[0] / noise[0]), last = 10.0 * std::log10(signal[1] / noise[1]);
  std::printf("[ drift    ] SNR of the first minute %.2f dB, of the last %.2f dB\n", first, last);
  EXPECT_GT(first, 50.0);
  EXPECT_NEAR(last, first, 0.5);
}

// Prediction on against prediction off (TAVRIN_DTS_ADPCM=0) at 768 kbit/s:
// at least 3 dB better on stationary tonal material, and on no signal of the
// set more than 0.1 dB worse.
TEST(Prediction, PaysOnTonesAndCostsNothingElsewhere) {
  const fs::path dir = test::fresh_test_dir("prediction-gain");
  struct Case {
    std::string name;
    Channels source;
    double min_gain_db;  // -0.1: must not get worse
  };
  const std::size_t n = 48000 * 3;
  std::vector<Case> cases = {
      {"harmonic tones", make(n, [](std::size_t ch, double t) { return harmonic(880.0 + 110.0 * ch, t, 0.3); }), 3.0},
      {"low-heavy mix", make(n, [](std::size_t ch, double t) {
         return ch == 0 ? low_heavy(65.4, 1046.5, t, 0.3) : low_heavy(49.0, 1109.0, t, 1.1);
       }), 3.0},
  };
  for (const test::TestSignal& s : test::make_signal_set(48000, 3.0))
    cases.push_back({s.id, test::as_stored(s.channels, SampleFormat::s24le), -0.1});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path input = dir / (c.name + ".wav");
    write_wav_file(input.string(), c.source, 48000, SampleFormat::s24le);
    double snr[2][2] = {};
    for (int on = 0; on < 2; ++on) {
      const test::Encoded e =
          test::encode_file(input, {48000, 768000, c.source[0].size(), 2, ""}, {"-q"}, on ? "TAVRIN_DTS_ADPCM=1" : "TAVRIN_DTS_ADPCM=0");
      ASSERT_EQ(e.decoded.channels.size(), 2u);
      for (std::size_t ch = 0; ch < 2; ++ch)
        snr[on][ch] = test::compare(c.source[ch], e.decoded.channels[ch], kCodecDelay).snr_db;
    }
    for (std::size_t ch = 0; ch < 2; ++ch) {
      EXPECT_GE(snr[1][ch] - snr[0][ch], c.min_gain_db) << "channel " << ch;
      std::printf("[ quality  ] %s, channel %zu: SNR %.2f dB without prediction, %.2f dB with\n", c.name.c_str(), ch,
                  snr[0][ch], snr[1][ch]);
    }
  }
}

}  // namespace
}  // namespace tavrin
