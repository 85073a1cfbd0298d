// Bass management: the crossover's two paths, the LFE it makes, and the
// streaming state.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <stdexcept>
#include <string>

#include "bitstream/test_util.h"
#include "matrix/bass_manager.h"

namespace tavrin {
namespace {

BedChannels tone_bed(std::size_t channel, double hz, std::uint32_t rate, std::size_t n) {
  BedChannels bed;
  for (auto& ch : bed) ch.assign(n, 0.0f);
  for (std::size_t i = 0; i < n; ++i) {
    bed[channel][i] = static_cast<float>(0.5 * std::sin(2.0 * std::numbers::pi * hz * static_cast<double>(i) / rate));
  }
  return bed;
}

double level_db(const std::vector<float>& x, std::size_t from) {
  double sum = 0.0;
  for (std::size_t i = from; i < x.size(); ++i) sum += static_cast<double>(x[i]) * x[i];
  return 10.0 * std::log10(sum / static_cast<double>(x.size() - from)) - 20.0 * std::log10(0.5 / std::sqrt(2.0));
}

TEST(BassManager, ConstructionChecksInOrder) {
  struct Case {
    std::uint32_t rate;
    double crossover, gain;
    std::string error;
  };
  const Case cases[] = {
      {32000, 10.0, 20.0, "bass management requires 44.1 or 48 kHz"},
      {48000, 39.9, 20.0, "crossover must be within 40..120 Hz"},
      {48000, 120.1, 0.0, "crossover must be within 40..120 Hz"},
      {48000, std::nan(""), 0.0, "crossover must be within 40..120 Hz"},
      {44100, 80.0, 6.1, "LFE gain must be within -12..+6 dB"},
      {44100, 80.0, -12.1, "LFE gain must be within -12..+6 dB"},
      {48000, 40.0, -12.0, "<no exception>"},
      {44100, 120.0, 6.0, "<no exception>"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(test::message_of([&] { make_bass_manager(c.rate, c.crossover, c.gain); }), c.error)
        << c.rate << " " << c.crossover << " " << c.gain;
  }
}

// At the crossover frequency each path is 6 dB down; the LFE's 120 Hz band
// limit adds almost nothing at 40 Hz and a hair at 80 Hz. The LFE gain
// scales the low path alone.
TEST(BassManager, CrossoverToneIsSixDecibelsDownInEachPath) {
  struct Case {
    double crossover, gain_db, lfe_limit_db;
  };
  for (const Case& c : {Case{40.0, 0.0, 0.0}, Case{80.0, 0.0, -0.02}, Case{80.0, -9.0, -0.02}}) {
    for (std::size_t main : {0u, 2u, 5u}) {
      SCOPED_TRACE(std::to_string(c.crossover) + " Hz, channel " + std::to_string(main));
      BassManager m = make_bass_manager(48000, c.crossover, c.gain_db);
      BedChannels bed = tone_bed(main, c.crossover, 48000, 96000);
      process_bass(m, bed);
      EXPECT_NEAR(level_db(bed[main], 48000), -6.02, 0.03);
      EXPECT_NEAR(level_db(bed[kBedLfe], 48000), -6.02 + c.gain_db + c.lfe_limit_db, 0.03);
    }
  }
}

// The two LR4 paths of a main channel sum to an all-pass: flat magnitude.
TEST(BassManager, CrossoverPathsSumToAnAllPass) {
  const BassManager m = make_bass_manager(44100, 100.0, 0.0);
  CrossoverPaths p = m.mains[0];
  const std::size_t n = 1 << 15;
  std::vector<double> h(n);
  for (std::size_t i = 0; i < n; ++i) {
    const double x = i == 0 ? 1.0 : 0.0;
    h[i] = run_biquad(p.low[1], run_biquad(p.low[0], x)) + run_biquad(p.high[1], run_biquad(p.high[0], x));
  }
  for (double hz : {10.0, 50.0, 100.0, 200.0, 1000.0, 15000.0}) {
    std::complex<double> response = 0.0;
    for (std::size_t i = 0; i < n; ++i) response += h[i] * std::polar(1.0, -2.0 * std::numbers::pi * hz * i / 44100.0);
    EXPECT_NEAR(std::abs(response), 1.0, 1e-6) << hz;
  }
}

TEST(BassManager, BlocksChangeNothingAndLengthsMustAgree) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(-0.5f, 0.5f);
  BedChannels bed;
  for (auto& ch : bed) {
    ch.resize(5000);
    for (float& x : ch) x = u(rng);
  }
  BassManager whole_m = make_bass_manager(44100, 63.0, -3.0);
  BedChannels whole = bed;
  process_bass(whole_m, whole);
  BassManager part_m = make_bass_manager(44100, 63.0, -3.0);
  for (std::size_t at = 0, k = 0; at < 5000; ++k) {
    const std::size_t n = std::min<std::size_t>(k % 2 ? 1 : 1700, 5000 - at);
    BedChannels part;
    for (std::size_t c = 0; c < kBedChannels; ++c) part[c].assign(bed[c].begin() + at, bed[c].begin() + at + n);
    process_bass(part_m, part);
    for (std::size_t c = 0; c < kBedChannels; ++c) {
      ASSERT_TRUE(std::equal(part[c].begin(), part[c].end(), whole[c].begin() + at)) << c << " at " << at;
    }
    at += n;
  }
  BedChannels empty;
  process_bass(part_m, empty);  // nothing to do
  bed[4].pop_back();
  EXPECT_EQ(test::message_of<std::runtime_error>([&] { process_bass(part_m, bed); }),
            "bass-management channel length mismatch");
}

}  // namespace
}  // namespace tavrin
