// The quality measures and the generated signal set that encoder regression
// tests stand on: the measures react to noise by the amount put in, only
// where it was put, and not to what is no noise (a delay, a level change);
// the signals are the same every time, with their attacks where stated.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <numbers>
#include <string>
#include <utility>
#include <vector>

#include "support/decoders.h"
#include "support/quality.h"
#include "support/signals.h"

namespace tavrin {
namespace {

using test::Channels;
using test::kCodecDelay;
using test::kNoNoiseDb;
using test::make_signal;
using test::measure_quality;
using test::noise_to_mask;
using test::Quality;
using test::TestSignal;

constexpr std::uint32_t kRate = 48000;

double energy(const std::vector<double>& x, std::size_t from, std::size_t to) {
  double e = 0.0;
  for (std::size_t i = from; i < to; ++i) e += x[i] * x[i];
  return e;
}

std::vector<double> white(std::size_t n, double rms, unsigned seed) {
  // Uniform noise from a fixed LCG: its variance is (2a)^2 / 12.
  std::vector<double> out(n);
  std::uint64_t state = seed;
  const double a = rms * std::sqrt(3.0);
  for (auto& v : out) {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    v = a * (2.0 * static_cast<double>(state >> 11) / 9007199254740992.0 - 1.0);
  }
  return out;
}

std::vector<double> sine(std::size_t n, double freq, double rms) {
  std::vector<double> out(n);
  for (std::size_t i = 0; i < n; ++i) out[i] = rms * std::sqrt(2.0) * std::sin(2 * std::numbers::pi * freq * i / kRate);
  return out;
}

// What the decoder would hand back: the source (plus `noise`) 480 samples late.
std::vector<std::vector<float>> delayed(const Channels& source, const Channels& noise = {}, double gain = 1.0) {
  std::vector<std::vector<float>> out;
  for (std::size_t c = 0; c < source.size(); ++c) {
    std::vector<float> ch(source[c].size() + kCodecDelay, 0.0f);
    for (std::size_t i = 0; i < source[c].size(); ++i)
      ch[i + kCodecDelay] = static_cast<float>(gain * (source[c][i] + (noise.empty() ? 0.0 : noise[c][i])));
    out.push_back(std::move(ch));
  }
  return out;
}

Channels float_exact(const TestSignal& s) { return test::as_stored(s.channels, SampleFormat::f32le); }

// ---- signals ---------------------------------------------------------------

TEST(TestSignals, AreDeterministicAtFullLengthAndWithinTheirPeakRange) {
  const auto ids = test::signal_ids();
  ASSERT_GE(ids.size(), 10u);
  for (std::uint32_t rate : {44100u, 48000u}) {
    const auto set = test::make_signal_set(rate);
    ASSERT_EQ(set.size(), ids.size());
    for (std::size_t k = 0; k < set.size(); ++k) {
      const TestSignal& s = set[k];
      SCOPED_TRACE(s.id + " at " + std::to_string(rate));
      EXPECT_EQ(s.id, ids[k]);
      EXPECT_EQ(s.rate, rate);
      ASSERT_EQ(s.channels.size(), 2u);
      double peak = 0.0;
      for (const auto& ch : s.channels) {
        ASSERT_EQ(ch.size(), 3 * rate);
        for (double v : ch) {
          ASSERT_TRUE(std::isfinite(v));
          peak = std::max(peak, std::fabs(v));
        }
      }
      EXPECT_GE(20 * std::log10(peak), -6.01);
      EXPECT_LE(20 * std::log10(peak), -2.99);
      const TestSignal again = make_signal(s.id, rate);
      EXPECT_EQ(again.channels, s.channels);
      EXPECT_EQ(again.attacks, s.attacks);
    }
  }
  EXPECT_THROW(make_signal("no-such-signal", kRate), std::invalid_argument);
}

TEST(TestSignals, StereoSignalsDifferBetweenChannels) {
  for (const char* id : {"sweep", "pink", "split"}) {
    const TestSignal s = make_signal(id, kRate);
    double lr = 0.0;
    for (std::size_t i = 0; i < s.channels[0].size(); ++i) lr += s.channels[0][i] * s.channels[1][i];
    const double rho = lr / std::sqrt(energy(s.channels[0], 0, s.channels[0].size()) *
                                      energy(s.channels[1], 0, s.channels[1].size()));
    EXPECT_LT(std::fabs(rho), 0.9) << id;
  }
}

// Each attack is a real onset, far more energy in the 5 ms from it than in
// the 5 ms before, at the same time at both rates; the mix's attacks are its
// drums' (the other instruments go on through them).
TEST(TestSignals, AttacksAreOnsetsAtTheSameTimeAtEitherRate) {
  const struct {
    const char* id;
    double min_rise_db;
  } cases[] = {{"drums", 25.0}, {"castanets", 40.0}};
  for (const auto& c : cases) {
    const TestSignal s48 = make_signal(c.id, 48000), s44 = make_signal(c.id, 44100);
    ASSERT_GE(s48.attacks.size(), 8u) << c.id;
    ASSERT_EQ(s44.attacks.size(), s48.attacks.size()) << c.id;
    for (std::size_t k = 0; k < s48.attacks.size(); ++k) {
      EXPECT_NEAR(s44.attacks[k] / 44100.0, s48.attacks[k] / 48000.0, 1.0 / 44100) << c.id << " attack " << k;
      if (k > 0) {
        EXPECT_GT(s48.attacks[k], s48.attacks[k - 1]);
      }
      const std::size_t a = s48.attacks[k], w = 240;
      for (const auto& ch : s48.channels) {
        const double rise = 10 * std::log10(energy(ch, a, a + w) / std::max(energy(ch, a - w, a), 1e-30));
        EXPECT_GE(rise, c.min_rise_db) << c.id << " attack " << k << " at " << a;
      }
    }
  }
  for (std::uint32_t rate : {44100u, 48000u})
    EXPECT_EQ(make_signal("mix", rate).attacks, make_signal("drums", rate).attacks);
  for (const char* id : {"plucked", "chord", "sweep", "pink", "speech", "bass", "split"})
    EXPECT_TRUE(make_signal(id, kRate).attacks.empty()) << id;
}

// ---- measures --------------------------------------------------------------

// No noise is no noise: the exact copy at the codec's delay, or at another
// level, has none; the wrong delay is all noise.
TEST(QualityMeasures, SeeNoNoiseInAnExactCopyAtTheDelayOrAnotherLevel) {
  const TestSignal s = make_signal("castanets", kRate);
  const Channels source = float_exact(s);

  const Quality exact = measure_quality(source, delayed(source), kCodecDelay, kRate, s.attacks);
  EXPECT_EQ(exact.snr_db, 300.0);
  EXPECT_EQ(exact.nmr_db, kNoNoiseDb);
  EXPECT_EQ(exact.pre_echo_db, kNoNoiseDb);

  const Quality halved = measure_quality(source, delayed(source, {}, 0.5), kCodecDelay, kRate, s.attacks);
  EXPECT_NEAR(halved.channels[0].gain_db, -6.02, 0.01);
  EXPECT_NEAR(halved.snr_db, 6.02, 0.01);  // SNR is of the plain difference
  EXPECT_EQ(halved.nmr_db, kNoNoiseDb);    // NMR and pre-echo undo the gain
  EXPECT_EQ(halved.pre_echo_db, kNoNoiseDb);

  // Taken one sample early, each click starts in the error a sample before
  // its attack.
  const Quality early = measure_quality(source, delayed(source), kCodecDelay + 1, kRate, s.attacks);
  EXPECT_LT(early.snr_db, 10.0);
  EXPECT_GT(early.nmr_db, 0.0);
  EXPECT_GT(early.pre_echo_db, -30.0);
}

// Calibration: the expected figures are what the shared roundtrip tool's
// model (the same kind of model, written independently) gives for the same
// kind of input. Against white noise, white noise X dB below it sits about
// 7 dB above -X (a noise-like masker lowers its mask by 5.5-6.5 dB);
// against a tone of the same power the same noise is far less masked,
// while a tone masks a tone beside it with its own, larger offset.
TEST(QualityMeasures, NoiseToMaskFollowsTheNoiseAndTheMaskerKind) {
  const std::size_t n = 3 * kRate;
  const std::vector<double> noise_source = white(n, 0.1, 1), tone_source = sine(n, 1000.0, 0.1);
  for (double below_db : {20.0, 30.0, 40.0}) {
    const double rms = 0.1 * std::pow(10.0, -below_db / 20);
    const std::vector<double> error = white(n, rms, 2), neighbour = sine(n, 1040.0, rms);
    EXPECT_NEAR(noise_to_mask(noise_source, error, kRate).nmr_db, -below_db + 6.9, 1.0) << below_db;
    EXPECT_NEAR(noise_to_mask(tone_source, error, kRate).nmr_db, -below_db + 59.0, 1.0) << below_db;
    EXPECT_NEAR(noise_to_mask(tone_source, neighbour, kRate).nmr_db, -below_db + 6.9, 1.0) << below_db;
    EXPECT_NEAR(noise_to_mask(noise_source, neighbour, kRate).nmr_db, -below_db + 14.7, 1.0) << below_db;
  }

  const std::vector<double> quiet = white(n, 1e-4, 3), loud = white(n, 1e-1, 3);
  const auto a = noise_to_mask(noise_source, quiet, kRate), b = noise_to_mask(noise_source, loud, kRate);
  EXPECT_NEAR(b.nmr_db - a.nmr_db, 60.0, 0.01);
  EXPECT_GT(b.frames_over_pct, 99.0);
  EXPECT_EQ(a.frames_over_pct, 0.0);
}

// Over silence only the threshold of hearing masks (a full-scale sine at
// 96 dB SPL): white noise at -120 dBFS is inaudible, at -60 dBFS it is not;
// the figures are again the roundtrip tool's.
TEST(QualityMeasures, OverSilenceTheThresholdInQuietMasks) {
  const std::vector<double> silence(kRate, 0.0);
  const double faint = noise_to_mask(silence, white(kRate, 1e-6, 4), kRate).nmr_db;
  const double audible = noise_to_mask(silence, white(kRate, 1e-3, 4), kRate).nmr_db;
  EXPECT_NEAR(faint, -38.2, 1.0);
  EXPECT_NEAR(audible, 21.7, 1.0);
  EXPECT_NEAR(audible - faint, 60.0, 0.01);
}

// Noise put just before each attack is measured at the level it was put
// at; noise just after an attack is not pre-echo.
TEST(QualityMeasures, PreEchoSeesNoiseBeforeAttacksOnly) {
  const TestSignal s = make_signal("castanets", kRate);
  const Channels source = float_exact(s);
  const std::size_t w = 240, gap = 48;
  for (bool before : {true, false}) {
    Channels noise(2, std::vector<double>(source[0].size(), 0.0));
    for (std::size_t c = 0; c < 2; ++c) {
      for (std::size_t a : s.attacks) {
        // 20 dB below the attack, over 4 ms ending 1 ms before it (or after).
        const std::size_t from = before ? a - w + gap / 2 : a + gap / 2, len = w - gap;
        const std::vector<double> burst = white(len, 1.0, static_cast<unsigned>(a + c));
        const double scale = std::sqrt(0.01 * energy(source[c], a, a + w) / energy(burst, 0, len));
        for (std::size_t i = 0; i < len; ++i) noise[c][from + i] = scale * burst[i];
      }
    }
    const Quality q = measure_quality(source, delayed(source, noise), kCodecDelay, kRate, s.attacks);
    if (before) {
      EXPECT_NEAR(q.pre_echo_db, -20.0, 0.2);
    } else {
      EXPECT_LT(q.pre_echo_db, -60.0);
    }
    EXPECT_GT(q.nmr_db, -40.0) << "the noise is there either way";
  }
  EXPECT_TRUE(std::isnan(test::pre_echo_db(source[0], source[0], kRate, {})));
  EXPECT_TRUE(std::isnan(test::pre_echo_db(source[0], source[0], kRate, {10, source[0].size() - 10})));
}

// ---- both stereo encoders on the whole set: regression floors --------------

// What each encoder measured on the set (NMR per signal in signal_ids()
// order, and pre-echo of the signals with attacks: drums, castanets, mix),
// 3 s per signal. A change that costs more than the margins fails; one that
// gains should lower the figures here with it.
struct QualityFloor {
  const char* option;  // "" for the default (legacy) path
  std::uint32_t rate;
  int kbps;
  std::array<double, 10> nmr_db;
  std::array<double, 3> pre_echo_db;
};
constexpr QualityFloor kFloors[] = {
    {"", 44100, 768, {-33.8, -38.4, -36.8, -33.5, -43.7, -27.7, -56.8, -32.5, -34.6, -26.1}, {-49.6, -74.0, -44.3}},
    {"", 44100, 1024, {-53.9, -55.8, -53.1, -48.5, -57.9, -48.5, -73.3, -50.4, -52.5, -29.1}, {-61.6, -80.5, -56.7}},
    {"", 44100, 1152, {-59.1, -57.9, -53.6, -57.1, -58.8, -52.9, -82.7, -51.9, -61.4, -36.2}, {-69.4, -88.0, -72.3}},
    {"", 44100, 1411, {-60.8, -58.3, -53.7, -72.2, -59.0, -56.0, -86.5, -52.1, -76.9, -51.4}, {-88.3, -108.9, -85.5}},
    {"", 48000, 768, {-35.0, -37.8, -29.9, -27.4, -44.8, -23.4, -51.0, -26.9, -32.3, -20.6}, {-53.0, -70.0, -42.7}},
    {"", 48000, 1024, {-51.3, -54.6, -51.6, -43.6, -57.3, -44.3, -64.9, -47.8, -50.4, -23.3}, {-67.8, -79.3, -55.3}},
    {"", 48000, 1152, {-57.9, -57.7, -53.8, -51.5, -58.9, -50.0, -74.0, -51.6, -58.6, -34.9}, {-75.7, -79.6, -64.0}},
    {"", 48000, 1411, {-60.7, -58.7, -54.1, -66.8, -59.2, -56.0, -80.2, -52.5, -73.2, -50.7}, {-84.5, -105.5, -81.9}},
    {"--production-candidate", 44100, 768, {-43.4, -43.2, -42.2, -33.9, -49.7, -40.9, -57.4, -40.2, -38.5, -38.7}, {-57.2, -86.1, -48.5}},
    {"--production-candidate", 44100, 1024, {-56.0, -56.7, -53.1, -51.7, -58.4, -53.8, -75.3, -51.6, -57.3, -50.7}, {-75.8, -105.3, -67.5}},
    {"--production-candidate", 44100, 1152, {-59.8, -58.0, -53.6, -60.7, -58.9, -55.5, -83.4, -52.1, -64.3, -52.3}, {-84.5, -108.6, -76.6}},
    {"--production-candidate", 44100, 1411, {-61.0, -58.3, -53.7, -77.2, -59.0, -56.0, -86.5, -52.2, -80.6, -62.6}, {-103.2, -108.9, -96.0}},
    {"--production-candidate", 48000, 768, {-43.5, -44.2, -42.3, -30.4, -49.4, -36.9, -51.9, -40.7, -35.9, -35.2}, {-59.2, -76.8, -46.5}},
    {"--production-candidate", 48000, 1024, {-54.5, -56.1, -52.8, -46.5, -58.1, -51.0, -69.3, -51.3, -52.5, -42.8}, {-74.7, -100.1, -64.1}},
    {"--production-candidate", 48000, 1152, {-59.3, -58.2, -53.9, -54.7, -59.0, -54.8, -75.1, -52.3, -61.3, -48.5}, {-83.3, -108.3, -71.9}},
    {"--production-candidate", 48000, 1411, {-61.3, -58.7, -54.1, -70.3, -59.2, -56.2, -84.7, -52.6, -76.7, -58.1}, {-99.9, -110.5, -89.9}},
};
// Room for another machine's kernel choice, which may round a few samples
// differently.
constexpr double kNmrMarginDb = 1.0;
constexpr double kPreEchoMarginDb = 1.5;

class QualityFloors : public ::testing::TestWithParam<int> {};

TEST_P(QualityFloors, EachEncoderKeepsItsMeasuredQualityOnEverySignal) {
  if (!test::program_available("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  const auto dir = test::fresh_test_dir("quality");
  std::vector<std::pair<std::uint32_t, double>> legacy_median;  // per rate
  for (const QualityFloor& floor : kFloors) {
    if (floor.kbps != GetParam()) continue;
    const char* name = *floor.option != '\0' ? floor.option : "legacy";
    SCOPED_TRACE(testing::Message() << name << ", " << floor.rate << " Hz");
    std::vector<std::string> options;
    if (*floor.option != '\0') options.emplace_back(floor.option);
    std::vector<Quality> results;
    std::size_t signal = 0, transient = 0;
    for (const TestSignal& s : test::make_signal_set(floor.rate)) {
      SCOPED_TRACE(s.id);
      const test::RoundTrip r = test::round_trip(TAVRIN_BINARY, s, floor.kbps, options, dir);
      ASSERT_TRUE(r.ok) << r.problem;
      ASSERT_EQ(r.quality.channels.size(), 2u);
      for (const auto& c : r.quality.channels) EXPECT_NEAR(c.gain_db, 0.0, 0.05);
      EXPECT_LE(r.quality.nmr_db, floor.nmr_db[signal++] + kNmrMarginDb);
      if (!s.attacks.empty()) {
        EXPECT_LE(r.quality.pre_echo_db, floor.pre_echo_db[transient++] + kPreEchoMarginDb);
      }
      results.push_back(r.quality);
    }
    EXPECT_EQ(transient, floor.pre_echo_db.size());
    std::vector<double> nmr;
    for (const Quality& q : results) nmr.push_back(q.nmr_db);
    const double median = test::median(nmr);
    if (*floor.option == '\0') {
      legacy_median.emplace_back(floor.rate, median);
    } else {
      // The point of the 24+8 encoder: noise better hidden than the legacy
      // path hides it, over the set.
      for (const auto& [rate, legacy] : legacy_median) {
        if (rate == floor.rate) {
          EXPECT_LT(median, legacy);
        }
      }
    }
    std::printf("%s, %d kbit/s, %u Hz\n%s", name, floor.kbps, floor.rate,
                test::format_quality_table(test::signal_ids(), results).c_str());
  }
}

INSTANTIATE_TEST_SUITE_P(Bitrates, QualityFloors, ::testing::Values(768, 1024, 1152, 1411));

}  // namespace
}  // namespace tavrin
