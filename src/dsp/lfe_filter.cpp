#include "dsp/lfe_filter.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace tavrin {

namespace {

constexpr std::size_t kHalf = (kLfeFilterTaps - 1) / 2;  // 224: the group delay

// A decoder's LFE interpolation returns a tone at f (Hz) with the gain
// exp(-(f / f0)^2), f0 = 148 Hz at 48 kHz and in proportion at other rates
// (measured through ffmpeg: -0.34 dB at 30 Hz, -1.4 dB at 60 Hz, -4 dB at
// 100 Hz). The filter makes that up inside the LFE's band, so that the
// decoded LFE comes back at unity gain.
constexpr double kDecoderRolloffHz = 148.0;
constexpr double kReferenceRate = 48000.0;

// The response the filter is fitted to, by weighted least squares over a
// frequency grid: the decoder's loss made up from 25 to 105 Hz (weighted
// in full), below 25 Hz lightly, a raised-cosine fall from 105 to 600 Hz
// that only guides the fit, and silence from 600 Hz up. With 449 taps this
// leaves the decoded LFE within about 0.2 dB of unity from 30 to 100 Hz,
// and everything from 1 kHz up, which would fold into the bass, more than
// 42 dB down; in between, the folded content falls under the decoder's own
// roll-off.
constexpr double kLowEdgeHz = 25.0;
constexpr double kPassEdgeHz = 105.0;
constexpr double kStopEdgeHz = 600.0;
constexpr double kLowWeight = 0.1;
constexpr double kTransitionWeight = 0.001;
constexpr double kStopWeight = 0.1;

struct GridPoint {
  double f = 0.0;       // Hz
  double weight = 0.0;  // includes the grid spacing
  double target = 0.0;  // wanted gain of the filter
};

std::vector<GridPoint> design_grid(double sample_rate) {
  const double f0 = kDecoderRolloffHz * sample_rate / kReferenceRate;
  const double edge_gain = std::exp((kPassEdgeHz / f0) * (kPassEdgeHz / f0));
  std::vector<GridPoint> grid;
  auto add = [&](double from, double to, double step) {
    for (double f = from; f < to; f += step) {
      GridPoint p;
      p.f = f;
      if (f <= kPassEdgeHz) {
        p.target = std::exp((f / f0) * (f / f0));
        p.weight = step * (f < kLowEdgeHz ? kLowWeight : 1.0);
      } else if (f < kStopEdgeHz) {
        p.target = edge_gain * 0.5 * (1.0 + std::cos(std::numbers::pi * (f - kPassEdgeHz) / (kStopEdgeHz - kPassEdgeHz)));
        p.weight = step * kTransitionWeight;
      } else {
        p.weight = step * kStopWeight;
      }
      grid.push_back(p);
    }
  };
  add(0.0, kPassEdgeHz, 0.5);
  add(kPassEdgeHz, kStopEdgeHz, 2.0);
  add(kStopEdgeHz, sample_rate / 2.0, 4.0);
  return grid;
}

// The zero-phase response is a0 + 2 sum a_k cos(k w). The normal equations
// need sum W cos(m w) for m up to 2 * kHalf and sum W T cos(k w) for k up to
// kHalf; each grid point's cosines come from the two-term recurrence.
std::vector<double> fit_half_taps(const std::vector<GridPoint>& grid, double sample_rate) {
  constexpr std::size_t n = kHalf + 1;
  std::vector<double> r(2 * kHalf + 1, 0.0), q(n, 0.0);
  for (const GridPoint& p : grid) {
    const double w = 2.0 * std::numbers::pi * p.f / sample_rate;
    const double c1 = std::cos(w);
    double prev = c1, cur = 1.0;  // cos(-w), cos(0)
    for (std::size_t m = 0; m < r.size(); ++m) {
      r[m] += p.weight * cur;
      if (m < n) q[m] += p.weight * p.target * cur;
      const double next = 2.0 * c1 * cur - prev;
      prev = cur;
      cur = next;
    }
  }
  // A[j][k] = sum W c_j c_k with c_0 = 1 and c_k = 2 cos(k w).
  std::vector<double> a(n * n), b(n);
  for (std::size_t j = 0; j < n; ++j) {
    b[j] = (j == 0 ? 1.0 : 2.0) * q[j];
    for (std::size_t k = 0; k < n; ++k) {
      double v;
      if (j == 0 && k == 0) {
        v = r[0];
      } else if (j == 0 || k == 0) {
        v = 2.0 * r[j + k];
      } else {
        v = 2.0 * (r[j > k ? j - k : k - j] + r[j + k]);
      }
      a[j * n + k] = v;
    }
  }
  // Cholesky: the matrix is symmetric positive definite.
  for (std::size_t j = 0; j < n; ++j) {
    double d = a[j * n + j];
    for (std::size_t k = 0; k < j; ++k) d -= a[j * n + k] * a[j * n + k];
    if (!(d > 0.0)) throw std::runtime_error("LFE filter design failed");
    d = std::sqrt(d);
    a[j * n + j] = d;
    for (std::size_t i = j + 1; i < n; ++i) {
      double s = a[i * n + j];
      for (std::size_t k = 0; k < j; ++k) s -= a[i * n + k] * a[j * n + k];
      a[i * n + j] = s / d;
    }
  }
  for (std::size_t i = 0; i < n; ++i) {
    double s = b[i];
    for (std::size_t k = 0; k < i; ++k) s -= a[i * n + k] * b[k];
    b[i] = s / a[i * n + i];
  }
  for (std::size_t i = n; i-- > 0;) {
    double s = b[i];
    for (std::size_t k = i + 1; k < n; ++k) s -= a[k * n + i] * b[k];
    b[i] = s / a[i * n + i];
  }
  return b;
}

std::vector<double> design_taps(double rate) {
  const std::vector<double> half = fit_half_taps(design_grid(rate), rate);
  std::vector<double> taps(kLfeFilterTaps);
  for (std::size_t k = 0; k <= kHalf; ++k) taps[kHalf + k] = taps[kHalf - k] = half[k];
  return taps;
}

}  // namespace

LfeFilter make_lfe_filter(std::uint32_t sample_rate) {
  // The fit is the same for every stream at a rate: made once per process.
  LfeFilter filter;
  if (sample_rate == 44100) {
    static const std::vector<double> taps = design_taps(44100.0);
    filter.taps = taps;
  } else if (sample_rate == 48000) {
    static const std::vector<double> taps = design_taps(48000.0);
    filter.taps = taps;
  } else {
    filter.taps = design_taps(static_cast<double>(sample_rate));
  }
  filter.history.assign(kLfeFilterTaps - 1 + kLfeFrameSamples, 0.0);
  return filter;
}

std::array<double, kLfePicksPerFrame> filter_and_pick_lfe(LfeFilter& filter, const double* frame) {
  constexpr std::size_t kPast = kLfeFilterTaps - 1;
  double* const h = filter.history.data();
  std::copy(frame, frame + kLfeFrameSamples, h + kPast);
  std::array<double, kLfePicksPerFrame> picks{};
  const double* taps = filter.taps.data();
  for (std::size_t j = 0; j < kLfePicksPerFrame; ++j) {
    // The output at frame position 64 j: taps[m] meets the input m samples
    // before it.
    const double* x = h + kPast + j * kLfeDecimation;
    double acc = 0.0;
    for (std::size_t m = 0; m < kLfeFilterTaps; ++m) acc += taps[m] * *(x - m);
    picks[j] = acc;
  }
  std::copy(h + kLfeFrameSamples, h + kLfeFrameSamples + kPast, h);
  return picks;
}

}  // namespace tavrin
