#include "matrix/bass_manager.h"

#include <cmath>
#include <numbers>
#include <stdexcept>

namespace tavrin {

namespace {

constexpr double kButterworthQ = 0.70710678118654752440;  // 1/sqrt(2)
// The eighth-order Butterworth LFE band limit as four sections.
constexpr double kLfeLimitW0Numerator = 753.9822368615503;  // 2 pi 120 Hz
constexpr std::array<double, 4> kLfeLimitQ = {0.5097955791, 0.6013448869, 0.8999762231, 2.5629154477};
constexpr std::array<std::size_t, kBassMains> kMainChannels = {0, 1, 2, 4, 5};

}  // namespace

Biquad low_pass_section(double w0, double q) {
  const double cw = std::cos(w0);
  const double alpha = std::sin(w0) / (2.0 * q);
  const double n = 1.0 + alpha;
  Biquad s;
  s.b0 = (1.0 - cw) / 2.0 / n;
  s.b1 = (1.0 - cw) / n;
  s.b2 = s.b0;
  s.a1 = -2.0 * cw / n;
  s.a2 = (1.0 - alpha) / n;
  return s;
}

Biquad high_pass_section(double w0, double q) {
  Biquad s = low_pass_section(w0, q);
  const double cw = std::cos(w0);
  const double n = 1.0 + std::sin(w0) / (2.0 * q);
  s.b0 = (1.0 + cw) / 2.0 / n;
  s.b1 = -(1.0 + cw) / n;
  s.b2 = s.b0;
  return s;
}

BassManager make_bass_manager(std::uint32_t sample_rate, double crossover_hz, double lfe_gain_db) {
  if (sample_rate != 44100 && sample_rate != 48000) {
    throw std::invalid_argument("bass management requires 44.1 or 48 kHz");
  }
  if (!(crossover_hz >= 40.0 && crossover_hz <= 120.0)) {
    throw std::invalid_argument("crossover must be within 40..120 Hz");
  }
  if (!(lfe_gain_db >= -12.0 && lfe_gain_db <= 6.0)) {
    throw std::invalid_argument("LFE gain must be within -12..+6 dB");
  }
  BassManager m;
  m.sample_rate = sample_rate;
  m.crossover_hz = crossover_hz;
  m.lfe_gain = std::pow(10.0, lfe_gain_db / 20.0);
  const double fs = static_cast<double>(sample_rate);
  const double w0 = 2.0 * std::numbers::pi * crossover_hz / fs;
  for (CrossoverPaths& paths : m.mains) {
    paths.low.fill(low_pass_section(w0, kButterworthQ));
    paths.high.fill(high_pass_section(w0, kButterworthQ));
  }
  for (std::size_t k = 0; k < m.lfe_low_pass.size(); ++k) {
    m.lfe_low_pass[k] = low_pass_section(kLfeLimitW0Numerator / fs, kLfeLimitQ[k]);
  }
  return m;
}

void process_bass(BassManager& m, BedChannels& bed) {
  const std::size_t n = bed[0].size();
  for (const auto& channel : bed) {
    if (channel.size() != n) throw std::runtime_error("bass-management channel length mismatch");
  }
  for (std::size_t i = 0; i < n; ++i) {
    double bass = 0.0;
    for (std::size_t k = 0; k < kBassMains; ++k) {
      CrossoverPaths& paths = m.mains[k];
      float& sample = bed[kMainChannels[k]][i];
      const double x = sample;
      bass += run_biquad(paths.low[1], run_biquad(paths.low[0], x));
      sample = static_cast<float>(run_biquad(paths.high[1], run_biquad(paths.high[0], x)));
    }
    double lfe = bass * m.lfe_gain;
    for (Biquad& section : m.lfe_low_pass) lfe = run_biquad(section, lfe);
    bed[kBedLfe][i] = static_cast<float>(lfe);
  }
}

}  // namespace tavrin
