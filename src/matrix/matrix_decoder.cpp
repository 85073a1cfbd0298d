#include "matrix/matrix_decoder.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace tavrin {

namespace {

constexpr double kPowerTime = 0.02;
constexpr double kAttackTime = 0.018;
constexpr double kReleaseTime = 0.14;
// Correlations inside +-0.3 steer nothing; full steering needs |rho| = 1.
constexpr double kSteerThreshold = 0.3;

double steer_target(double correlation, double balance) {
  return std::clamp((correlation - kSteerThreshold) / (1.0 - kSteerThreshold), 0.0, 1.0) * balance;
}

void follow(double& gain, double target, double attack, double release) {
  const double a = target > gain ? attack : release;
  gain = (1.0 - a) * target + a * gain;
}

}  // namespace

std::size_t matrix_delay_samples(std::uint32_t sample_rate, double rear_delay_ms) {
  return static_cast<std::size_t>(std::llround(rear_delay_ms * static_cast<double>(sample_rate) / 1000.0));
}

MatrixDecoder make_matrix_decoder(std::uint32_t sample_rate, double rear_delay_ms) {
  if (sample_rate == 0) throw std::invalid_argument("matrix sample rate must be > 0");
  if (!std::isfinite(rear_delay_ms) || rear_delay_ms < 0.0 || rear_delay_ms > 40.0) {
    throw std::invalid_argument("matrix rear delay must be within 0..40 ms");
  }
  MatrixDecoder d;
  d.sample_rate = sample_rate;
  d.rear_delay_ms = rear_delay_ms;
  d.fs = static_cast<double>(sample_rate);
  d.beta = std::exp(-1.0 / (d.fs * kPowerTime));
  d.attack = std::exp(-1.0 / (kAttackTime * d.fs));
  d.release = std::exp(-1.0 / (kReleaseTime * d.fs));
  d.reported_delay_ms = rear_delay_ms;
  d.delay_line.assign(matrix_delay_samples(sample_rate, rear_delay_ms), 0.0f);
  return d;
}

MatrixStats matrix_stats(const MatrixDecoder& d) { return {d.peak_c, d.peak_s, d.reported_delay_ms}; }

MatrixStats process_matrix(MatrixDecoder& d, const float* left, const float* right, std::size_t n,
                           BedChannels& out) {
  if (left == nullptr || right == nullptr) throw std::invalid_argument("matrix decoder requires stereo input");
  if (d.flushed) throw std::runtime_error("matrix decoder cannot process after flush");
  for (auto& channel : out) channel.resize(n);
  const double beta = d.beta;
  const std::size_t line = d.delay_line.size();
  for (std::size_t i = 0; i < n; ++i) {
    const double l = left[i];
    const double r = right[i];
    d.p_ll = (1.0 - beta) * l * l + beta * d.p_ll;
    d.p_lr = (1.0 - beta) * l * r + beta * d.p_lr;
    d.p_rr = (1.0 - beta) * r * r + beta * d.p_rr;
    const double rho = std::clamp(d.p_lr / std::sqrt(std::max(d.p_ll * d.p_rr, 1e-24)), -1.0, 1.0);
    // A signal wholly in one channel is not steered.
    const double balance =
        std::clamp(1.0 - std::abs((d.p_ll - d.p_rr) / std::max(d.p_ll + d.p_rr, 1e-24)), 0.0, 1.0);
    follow(d.g_c, steer_target(rho, balance), d.attack, d.release);
    follow(d.g_s, steer_target(-rho, balance), d.attack, d.release);
    d.peak_c = std::max(d.peak_c, static_cast<float>(d.g_c));
    d.peak_s = std::max(d.peak_s, static_cast<float>(d.g_s));

    const double m = (l + r) / 2.0;
    const double diff = (l - r) / 2.0;
    const double s = d.g_s * diff;
    out[0][i] = static_cast<float>(l - d.g_c * m - s);
    out[1][i] = static_cast<float>(r - d.g_c * m + s);
    out[2][i] = static_cast<float>(std::sqrt(2.0) * d.g_c * m);
    out[kBedLfe][i] = 0.0f;
    float surround = static_cast<float>(s);
    if (line > 0) {
      std::swap(surround, d.delay_line[d.delay_index]);
      if (++d.delay_index == line) d.delay_index = 0;
    }
    out[4][i] = surround;
    out[5][i] = surround;
  }
  return matrix_stats(d);
}

MatrixStats flush_matrix(MatrixDecoder& d, BedChannels& out) {
  const std::size_t line = d.flushed ? 0 : d.delay_line.size();
  for (auto& channel : out) channel.assign(line, 0.0f);
  for (std::size_t i = 0; i < line; ++i) {
    // The oldest sample sits at the index the next write would use.
    const float held = d.delay_line[(d.delay_index + i) % line];
    out[4][i] = held;
    out[5][i] = held;
  }
  d.flushed = true;
  return matrix_stats(d);
}

}  // namespace tavrin
