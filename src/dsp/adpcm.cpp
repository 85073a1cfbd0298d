#include "dsp/adpcm.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "dsp/adpcm_search.h"
#include "dsp/qmf_kernel.h"
#include "dsp/quant_tables.h"
#include "dsp/quantizer.h"

namespace tavrin {

namespace {

constexpr double kQ13 = 1.0 / 8192.0;
constexpr std::size_t kOrder = 4;
// How far, against its radius, a predicted band's predictor may move before
// its shortlist is scanned again. Measured: at half the radius the choices
// are as good as with a scan at every chance, at the full radius a slow
// sweep loses 0.2 dB.
constexpr double kKeptListReach = 0.5;

double tolerance(double a, double b) { return std::max(1e-8 * std::max(std::abs(a), std::abs(b)), 1e-24); }

// Sum of (x[i] - sum c_k x[i-1-k])^2 over i = 4..n-1, in the residual
// kernels' order.
double residual_energy(const double* x, std::size_t n, const Predictor& c) {
  double sum = 0.0;
  for (std::size_t i = kOrder; i < n; ++i) {
    const double e = x[i] - (c[0] * x[i - 1] + c[1] * x[i - 2] + c[2] * x[i - 3] + c[3] * x[i - 4]);
    sum += e * e;
  }
  return sum;
}

double residual_mean_square(const double* x, std::size_t n, const Predictor& c) {
  return residual_energy(x, n, c) / static_cast<double>(n - kOrder);
}

double gain_db(double power, double residual) {
  if (power > 1e-30 && residual > 1e-30) return 10.0 * std::log10(power / residual);
  if (residual <= 1e-30 && power > 1e-30) return 300.0;
  return 0.0;
}

double span_power(const double* x, std::size_t n) {
  double energy = 0.0;
  for (std::size_t i = kOrder; i < n; ++i) energy += x[i] * x[i];
  return energy / static_cast<double>(n - kOrder);
}

// Solves the 4 x 4 system in place by Gaussian elimination with partial
// pivoting; false when a pivot is (nearly) zero.
bool solve4(double m[4][5], Predictor& c) {
  for (std::size_t col = 0; col < kOrder; ++col) {
    std::size_t pivot = col;
    for (std::size_t r = col + 1; r < kOrder; ++r)
      if (std::abs(m[r][col]) > std::abs(m[pivot][col])) pivot = r;
    if (!(std::abs(m[pivot][col]) >= 1e-18)) return false;
    if (pivot != col)
      for (std::size_t k = 0; k < 5; ++k) std::swap(m[pivot][k], m[col][k]);
    for (std::size_t r = col + 1; r < kOrder; ++r) {
      const double f = m[r][col] / m[col][col];
      for (std::size_t k = col; k < 5; ++k) m[r][k] -= f * m[col][k];
    }
  }
  for (std::size_t i = kOrder; i-- > 0;) {
    double s = m[i][4];
    for (std::size_t k = i + 1; k < kOrder; ++k) s -= m[i][k] * c[k];
    c[i] = s / m[i][i];
  }
  return true;
}

}  // namespace

Predictor adpcm_vq_entry(unsigned pvq) {
  if (pvq >= kAdpcmVqEntries) throw std::out_of_range("DTS ADPCM PVQ index out of range");
  Predictor c{};
  for (std::size_t k = 0; k < kOrder; ++k) c[k] = kAdpcmVq[pvq][k] * kQ13;
  return c;
}

std::vector<std::uint16_t> shortlist_adpcm_entries(const Predictor& target, const AdpcmVqEntry* table,
                                                   std::size_t count, std::size_t length) {
  if (length == 0) throw std::invalid_argument("ADPCM shortlist must be non-zero");
  if (table == nullptr && count != 0) throw std::invalid_argument("null ADPCM VQ table");
  const std::size_t keep = std::min(length, count);
  std::vector<std::uint16_t> list(keep + 1);
  std::vector<double> dist(keep + 1);
  ShortlistBuilder builder{list.data(), dist.data(), 0, keep};
  for (std::size_t v = 0; v < count; ++v) {
    double d = 0.0;
    for (std::size_t k = 0; k < kOrder; ++k) {
      const double diff = target[k] - table[v][k] * kQ13;
      d += diff * diff;
    }
    builder.offer(static_cast<std::uint16_t>(v), d);
  }
  list.resize(builder.size);
  return list;
}

PvqChoice select_among(const double* x, std::size_t n, const std::uint16_t* list, std::size_t count,
                       const AdpcmVqEntry* table) {
  if (x == nullptr || n <= kOrder) throw std::invalid_argument("not enough samples for DTS ADPCM PVQ selection");
  // Every entry's residual energy first (the format's table has a kernel
  // for them), then the choice, in list order.
  double near[64];
  std::vector<double> far;
  double* sums = count <= std::size(near) ? near : (far.resize(count), far.data());
  if (table == kAdpcmVq.data()) {
    qmf_kernel().adpcm_residuals(x, n, list, count, sums);
  } else {
    for (std::size_t i = 0; i < count; ++i) {
      Predictor c{};
      for (std::size_t k = 0; k < kOrder; ++k) c[k] = table[list[i]][k] * kQ13;
      sums[i] = residual_energy(x, n, c);
    }
  }
  PvqChoice best;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint16_t v = list[i];
    const double m = sums[i] / static_cast<double>(n - kOrder);
    if (i == 0) {
      best = {v, m, 0.0};
      continue;
    }
    const double tol = tolerance(m, best.residual);
    if (best.residual - tol > m || (!(m - tol > best.residual) && v < best.pvq)) best = {v, m, 0.0};
  }
  const double power = span_power(x, n);
  best.gain_db = power > 1e-30 ? gain_db(power, best.residual) : 0.0;
  return best;
}

PvqChoice select_pvq(const double* x, std::size_t n, const Predictor& target, const AdpcmVqEntry* table,
                     std::size_t count, std::size_t length, AdpcmShortlistWork* work) {
  if (x == nullptr || n <= kOrder) throw std::invalid_argument("not enough samples for DTS ADPCM PVQ selection");
  AdpcmShortlistWork own;
  AdpcmShortlistWork& room = work != nullptr ? *work : own;
  std::vector<std::uint16_t>& list = room.list;
  // The format's own table has a fast scan that keeps the reference's order.
  if (table == kAdpcmVq.data() && count == kAdpcmVqEntries && length > 0) {
    const std::size_t keep = std::min(length, kAdpcmVqEntries);
    list.resize(keep + 1);
    list.resize(qmf_kernel().adpcm_shortlist(target.data(), keep, list.data(), room));
  } else {
    list = shortlist_adpcm_entries(target, table, count, length);
  }
  return select_among(x, n, list.data(), list.size(), table);
}

bool adpcm_entry_reaches(const double* x, std::size_t n, unsigned pvq, double min_gain_db, double* gain_db_out) {
  if (x == nullptr || n <= kOrder) throw std::invalid_argument("not enough samples for DTS ADPCM PVQ selection");
  const double power = span_power(x, n);
  const double residual = residual_mean_square(x, n, adpcm_vq_entry(pvq));
  // The logarithm only for the entries that pass.
  if (!(power > 1e-30) || !(power >= residual * std::pow(10.0, min_gain_db / 10.0))) return false;
  *gain_db_out = gain_db(power, residual);
  return *gain_db_out >= min_gain_db;
}

PredictionDecision design_predictor(const double* x, std::size_t n, const PredictorConfig& config) {
  if (x == nullptr) throw std::invalid_argument("null predictor samples");
  if (config.order != kOrder) throw std::invalid_argument("DTS Core predictor order is 4");
  if (n <= kOrder) throw std::invalid_argument("not enough samples for 4-tap predictor");
  PredictionDecision d;
  double energy = 0.0;
  double m[4][5] = {};
  // R is symmetric: its upper triangle is summed, in the same order, and
  // mirrored.
  for (std::size_t i = kOrder; i < n; ++i) {
    energy += x[i] * x[i];
    for (std::size_t j = 0; j < kOrder; ++j) {
      for (std::size_t k = j; k < kOrder; ++k) m[j][k] += x[i - 1 - j] * x[i - 1 - k];
      m[j][4] += x[i - 1 - j] * x[i];
    }
  }
  for (std::size_t j = 1; j < kOrder; ++j)
    for (std::size_t k = 0; k < j; ++k) m[j][k] = m[k][j];
  const double lambda = std::max(config.ridge, 0.0) * (energy + 1.0);
  for (std::size_t j = 0; j < kOrder; ++j) m[j][j] += lambda;
  if (!solve4(m, d.ls_coefficients)) return d;
  const double residual = residual_mean_square(x, n, d.ls_coefficients);
  d.ls_residual = residual;
  d.ls_gain_db = gain_db(energy / static_cast<double>(n - kOrder), residual);
  const Predictor& c = d.ls_coefficients;
  const double magnitude = std::abs(c[0]) + std::abs(c[1]) + std::abs(c[2]) + std::abs(c[3]);
  d.ls_valid = std::isfinite(residual) && std::isfinite(magnitude) && magnitude <= 3.5;
  d.ls_usable = d.ls_valid && d.ls_gain_db >= config.min_gain_db;
  return d;
}

namespace {
// The decision once a table entry is chosen: prediction pays when the entry
// gains at least the configured minimum.
void take_choice(PredictionDecision& d, const PvqChoice& choice, const PredictorConfig& config) {
  d.chosen = true;
  d.pvq = choice.pvq;
  d.coefficients = adpcm_vq_entry(choice.pvq);
  d.residual = choice.residual;
  d.gain_db = choice.gain_db;
  d.pmode = d.gain_db >= config.min_gain_db ? 1 : 0;
}
}  // namespace

PredictionDecision decide_prediction(const double* x, std::size_t n, const PredictorConfig& config,
                                     std::size_t shortlist_length, AdpcmShortlistWork* work) {
  PredictionDecision d = design_predictor(x, n, config);
  if (!d.ls_usable) return d;
  const PvqChoice choice =
      select_pvq(x, n, d.ls_coefficients, kAdpcmVq.data(), kAdpcmVqEntries, shortlist_length, work);
  take_choice(d, choice, config);
  return d;
}

PredictionDecision decide_prediction_cached(const double* x, std::size_t n, const PredictorConfig& config,
                                            std::size_t shortlist_length, AdpcmDecisionCache& cache,
                                            AdpcmShortlistWork& work, bool may_reuse) {
  if (shortlist_length == 0) throw std::invalid_argument("ADPCM shortlist must be non-zero");
  // A band that was predicted last time and may keep its neighbourhood
  // needs no new design while an entry of that neighbourhood still pays.
  if (may_reuse && cache.valid && cache.predicted) {
    const PvqChoice choice = select_among(x, n, cache.list.data(), cache.list.size());
    if (choice.gain_db >= config.min_gain_db) {
      PredictionDecision r;
      r.chosen = true;
      r.pvq = choice.pvq;
      r.coefficients = adpcm_vq_entry(choice.pvq);
      r.residual = choice.residual;
      r.gain_db = choice.gain_db;
      r.pmode = 1;
      return r;
    }
  }
  PredictionDecision d = design_predictor(x, n, config);
  if (!d.ls_usable) {
    cache.predicted = false;
    return d;
  }
  const std::size_t keep = std::min(shortlist_length, kAdpcmVqEntries);
  double moved = 0.0;
  for (std::size_t k = 0; k < kOrder; ++k) moved += (d.ls_coefficients[k] - cache.target[k]) * (d.ls_coefficients[k] - cache.target[k]);
  moved = std::sqrt(moved) * (1.0 + 1e-12);
  // Every listed entry is now within radius + moved, every other one at
  // least next_radius - moved away: while the first stays clearly below the
  // second, the nearest `keep` are the same entries. A predicted band also
  // keeps its list while its predictor stays well inside it: most of the
  // nearest entries are then still listed, and the scan, which costs more
  // than all the rest of a decision, is saved for a band that moves.
  const bool proven = (cache.radius + 2.0 * moved) * (1.0 + 1e-7) + 1e-12 < cache.next_radius;
  const bool near = cache.predicted && moved < kKeptListReach * cache.radius;
  const bool same = cache.valid && cache.list.size() == keep && (proven || may_reuse || near);
  if (!same) {
    // One entry more than the list, for the gap to the rest.
    const std::size_t wanted = std::min(keep + 1, kAdpcmVqEntries);
    std::vector<std::uint16_t>& list = work.list;
    list.resize(wanted + 1);
    const std::size_t found = qmf_kernel().adpcm_shortlist(d.ls_coefficients.data(), wanted, list.data(), work);
    cache.list.assign(list.begin(), list.begin() + static_cast<std::ptrdiff_t>(std::min(found, keep)));
    double radius = 0.0;
    for (std::size_t i = 0; i < cache.list.size(); ++i) radius = std::max(radius, work.list_distance[i]);
    cache.radius = std::sqrt(radius);
    cache.next_radius = found > keep ? std::sqrt(work.list_distance[keep]) : std::numeric_limits<double>::infinity();
    cache.target = d.ls_coefficients;
    cache.valid = true;
  }
  const PvqChoice choice = select_among(x, n, cache.list.data(), cache.list.size());
  take_choice(d, choice, config);
  cache.predicted = d.pmode != 0;
  return d;
}

namespace {

constexpr unsigned kResidualScaleRetries = 4;

// One pass of the decoders' loop at `scale`; false when a residual fell
// outside the index range.
bool residual_closed_loop(const double* x, std::size_t n, unsigned abits, unsigned scale, const AdpcmVqEntry& entry,
                          AdpcmHistory history, std::int32_t* q, std::int32_t* y) {
  const double quantum = kScaleFactor6[scale] * kStepSize[abits];
  // Each sample waits on the one before it: the loop is a chain of
  // latencies, and a multiplication is a shorter link than a division.
  const double per_unit = 1.0 / quantum;
  const std::int64_t factor = decoder_dequantize_factor(abits, scale);
  const auto high = static_cast<std::int32_t>(index_reach(abits));
  const std::int32_t low = abits < 8 ? -high : -high - 1;
  bool fits = true;
  for (std::size_t k = 0; k < n; ++k) {
    const std::int32_t p = decoder_prediction(history, entry);
    const double r = (x[k] - p) * per_unit;
    fits = fits && r >= low - 0.5 && r <= high + 0.5;
    std::int32_t index = static_cast<std::int32_t>(rounded_units_within(r, low, high));
    std::int32_t out = clip_decoder_sample(std::int64_t{decoder_dequantize_by(index, factor)} + p);
    // A neighbour can only come out nearer where the decoder's rounding
    // (half a unit) is not small against the quantum.
    if (quantum < 2.0) {
      for (const std::int32_t alt : {index - 1, index + 1}) {
        if (alt < low || alt > high) continue;
        const std::int32_t ya = clip_decoder_sample(std::int64_t{decoder_dequantize_by(alt, factor)} + p);
        if (std::abs(x[k] - ya) < std::abs(x[k] - out)) {
          index = alt;
          out = ya;
        }
      }
    }
    q[k] = index;
    y[k] = out;
    push_history(history, out);
  }
  return fits;
}

}  // namespace

AdpcmResidualCoding code_adpcm_residual(const double* x, std::size_t n, unsigned abits, const AdpcmVqEntry& entry,
                                        const AdpcmHistory& history, std::int32_t* q, std::int32_t* y) {
  double peak = 0.0;
  for (std::size_t k = 0; k < n; ++k) {
    double p = 0.0;
    for (std::size_t j = 0; j < 4; ++j) {
      const double past = k > j ? x[k - 1 - j] : static_cast<double>(history[j - k]);
      p += entry[j] * past;
    }
    peak = std::max(peak, std::abs(x[k] - p / 8192.0));
  }
  AdpcmResidualCoding c;
  c.scale = quantizer_at(std::max(peak, 1e-12), abits).scale_index;
  for (unsigned tries = 0;; ++tries) {
    c.fits = residual_closed_loop(x, n, abits, c.scale, entry, history, q, y);
    if (c.fits || tries == kResidualScaleRetries || c.scale + 1u >= kScaleFactor6Count) return c;
    ++c.scale;
  }
}

}  // namespace tavrin
