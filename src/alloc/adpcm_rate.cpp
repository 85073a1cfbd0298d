#include "alloc/adpcm_rate.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>

#include "alloc/plan_payload.h"
#include "dsp/quantizer.h"

namespace tavrin {

namespace {

constexpr std::size_t kBands = 32;
constexpr std::size_t kSamples = 8;
constexpr unsigned kMaxAbits = 26;
// How far past the next step a raise may look: far enough to jump the odd
// step whose error happens not to fall.
constexpr unsigned kLookahead = 4;
// A move must at least halve the cost per bit of what it takes away, so the
// refinement only pays where the greedy search really went astray and does
// not churn over near-equal choices.
constexpr double kExchangeMargin = 0.5;
constexpr unsigned kMaxRefusals = 4;

// Left uninitialised on purpose: a frame has hundreds of bands and only the
// entries named in `known` are ever read.
struct Band {
  AllocationBand* entry;
  const double* x;  // sample k at x[k * kBands]
  std::array<double, kMaxAbits + 1> distortion;
  std::uint32_t known;  // bit a set: distortion[a] is measured
  bool eligible;
  bool blocked;
};

double measure(Band& band, unsigned abits) {
  double& d = band.distortion[abits];
  if (band.known & (1u << abits)) return d;
  band.known |= 1u << abits;
  const QuantizerChoice q = baseline_quantizer_for_peak(band.entry->peak, abits, abits, band.entry->quantizer.scale_index);
  // Few bands are ever measured, so their samples are gathered only here.
  double x[kSamples];
  for (std::size_t k = 0; k < kSamples; ++k) x[k] = band.x[k * kBands];
  d = quantization_error<kSamples>(x, q) / static_cast<double>(kSamples);
  return d;
}

// step_size(a + 1) / step_size(a) and step_size(a - 1) / step_size(a),
// worked out once per frame rather than per band.
struct StepRatios {
  std::array<double, kMaxAbits + 1> up{}, down{};
};

StepRatios step_ratios() {
  StepRatios r;
  for (unsigned a = 1; a <= kMaxAbits; ++a) {
    if (a < kMaxAbits) r.up[a] = step_size(a + 1) / step_size(a);
    r.down[a] = step_size(a - 1) / step_size(a);
  }
  return r;
}

// Expected error one step away (to = from +- 1), from the error now: the
// error of a uniform quantizer goes with the square of its step. Used only
// to rank bands; every move is priced with measured errors before it is
// made.
double modelled_distortion(const Band& band, unsigned from, unsigned to, const StepRatios& ratios) {
  if (band.known & (1u << to)) return band.distortion[to];
  const double ratio = to > from ? ratios.up[from] : ratios.down[from];
  return band.entry->distortion * ratio * ratio;
}

// Division by a step's bit cost; most steps cost 8 bits, and multiplying
// by 1/8 gives the same result much sooner.
double per_bit(double value, std::uint64_t bits) {
  return bits == 8 ? value * 0.125 : value / static_cast<double>(bits);
}

unsigned next_abits(unsigned a, const AllocationConfig& config) { return a == 0 ? config.abits_min : a + 1; }
unsigned lower_abits(unsigned a, const AllocationConfig& config) { return a == config.abits_min ? 0 : a - 1; }

// Weighted error bought per bit by the next step, as modelled.
double modelled_raise_rate(const Band& band, const AllocationConfig& config, const StepRatios& ratios) {
  const unsigned a = band.entry->abits;
  if (!band.eligible || band.blocked || a >= config.abits_max) return 0.0;
  const unsigned to = next_abits(a, config);
  const double after = a == 0 ? 0.0 : modelled_distortion(band, a, to, ratios);
  return per_bit((band.entry->distortion - after) * band.entry->weight, band_bit_cost(to) - band_bit_cost(a));
}

// Weighted error lost per bit freed by the step down, as modelled.
double modelled_lower_rate(const Band& band, const AllocationConfig& config, const StepRatios& ratios) {
  const unsigned a = band.entry->abits;
  const unsigned to = lower_abits(a, config);
  return per_bit((modelled_distortion(band, a, to, ratios) - band.entry->distortion) * band.entry->weight,
                 band_bit_cost(a) - band_bit_cost(to));
}

struct Raise {
  unsigned to = 0;
  double gain = 0.0;
  std::uint64_t bits = 0;
};

// The best measured raise within the look-ahead, by weighted error per bit.
Raise best_raise(Band& band, const AllocationConfig& config) {
  Raise best;
  const unsigned a = band.entry->abits;
  const unsigned first = next_abits(a, config);
  const unsigned last = std::min<unsigned>(config.abits_max, first + kLookahead - 1);
  double best_rate = 0.0;
  for (unsigned to = first; to <= last; ++to) {
    const double gain = (band.entry->distortion - measure(band, to)) * band.entry->weight;
    const std::uint64_t bits = band_bit_cost(to) - band_bit_cost(a);
    if (gain > 0.0 && gain / static_cast<double>(bits) > best_rate) {
      best_rate = gain / static_cast<double>(bits);
      best = {to, gain, bits};
    }
  }
  return best;
}

void set_abits(Band& band, unsigned abits) {
  AllocationBand& e = *band.entry;
  e.abits = static_cast<std::uint8_t>(abits);
  e.distortion = band.distortion[abits];
  e.quantizer = abits == 0 ? QuantizerChoice{}
                            : baseline_quantizer_for_peak(e.peak, abits, abits, e.quantizer.scale_index);
}

// The index of the first largest rate, as std::max_element gives it (the
// rates are never NaN). Four running maxima keep the scan from waiting on
// each comparison; the second pass stops at the first match.
std::size_t first_largest(const std::vector<double>& rates) {
  const std::size_t n = rates.size();
  const double* r = rates.data();
  double m[4] = {-std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                 -std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
  std::size_t i = 0;
  for (; i + 4 <= n; i += 4)
    for (std::size_t j = 0; j < 4; ++j) m[j] = std::max(m[j], r[i + j]);
  for (; i < n; ++i) m[0] = std::max(m[0], r[i]);
  const double best = std::max(std::max(m[0], m[1]), std::max(m[2], m[3]));
  for (i = 0; i < n; ++i)
    if (r[i] == best) return i;
  return n;
}

}  // namespace

std::uint32_t refine_allocation(const std::vector<const double*>& channels, AllocationPlan& plan,
                                std::uint64_t budget_bits, const AllocationConfig& config) {
  const std::size_t nch = channels.size();
  const std::size_t count = plan.subframes.size() * nch * kBands;
  const std::unique_ptr<Band[]> bands(new Band[count]);
  double rmax = 0.0;
  for (const auto& sub : plan.subframes)
    for (const auto& ch : sub)
      for (const auto& b : ch) rmax = std::max(rmax, b.rms);
  const double threshold = rmax * config.relative_silence_floor;
  std::size_t index = 0;
  for (std::size_t s = 0; s < plan.subframes.size(); ++s) {
    for (std::size_t c = 0; c < nch; ++c) {
      const double* block = channels[c] + s * kBands * kSamples;
      for (std::size_t b = 0; b < kBands; ++b) {
        Band& band = bands[index++];
        band.entry = &plan.subframes[s][c][b];
        band.x = block + b;
        band.distortion[0] = band.entry->rms * band.entry->rms;
        band.distortion[band.entry->abits] = band.entry->distortion;
        band.known = 1u | (1u << band.entry->abits);
        band.eligible = band.entry->rms > threshold && band.entry->peak > 1e-18;
        band.blocked = false;
      }
    }
  }
  // Modelled rates are kept per band and refreshed only where a move
  // changed something, so each round is two plain scans.
  std::vector<double> raise_rate(count), lower_rate(count);
  const StepRatios ratios = step_ratios();
  auto refresh = [&](std::size_t i) {
    raise_rate[i] = modelled_raise_rate(bands[i], config, ratios);
    lower_rate[i] = bands[i].entry->abits == 0 ? std::numeric_limits<double>::infinity()
                                               : modelled_lower_rate(bands[i], config, ratios);
  };
  for (std::size_t i = 0; i < count; ++i) refresh(i);

  std::uint64_t free_bits = budget_bits - plan.total_bits;
  std::uint32_t moves = 0;
  unsigned refusals = 0;
  std::vector<std::size_t> lowered, cheapest;
  // Every move lowers the weighted error, so the loop cannot cycle; the cap
  // only bounds the work on pathological frames.
  const std::size_t max_moves = count * 2;
  while (moves < max_moves && refusals < kMaxRefusals) {
    const std::size_t top = first_largest(raise_rate);
    if (top == count || !(raise_rate[top] > 0.0)) break;
    Band& band = bands[top];
    const Raise raise = best_raise(band, config);
    if (raise.to == 0) {
      band.blocked = true;
      raise_rate[top] = 0.0;
      ++refusals;
      continue;
    }

    // Free the missing bits where they cost the least weighted error. Every
    // step down frees at least 8 bits, which bounds how many can be needed;
    // one pass finds that many cheapest, in order, lower index first on ties.
    lowered.clear();
    std::uint64_t freed = 0;
    double loss = 0.0;
    if (free_bits < raise.bits) {
      const std::size_t wanted = static_cast<std::size_t>((raise.bits - free_bits + 7) / 8);
      // The band being raised is no victim: an infinite rate, like that of
      // a silent band, never passes the bound. Once the list is full, the
      // bound is its last entry, so most bands cost one comparison.
      const double top_lower_rate = lower_rate[top];
      lower_rate[top] = std::numeric_limits<double>::infinity();
      cheapest.clear();
      double bound = std::numeric_limits<double>::infinity();
      for (std::size_t i = 0; i < count; ++i) {
        const double rate = lower_rate[i];
        if (!(rate < bound)) continue;
        auto at = cheapest.end();
        while (at != cheapest.begin() && rate < lower_rate[*(at - 1)]) --at;
        cheapest.insert(at, i);
        if (cheapest.size() > wanted) cheapest.pop_back();
        if (cheapest.size() == wanted) bound = lower_rate[cheapest.back()];
      }
      lower_rate[top] = top_lower_rate;
      for (std::size_t i : cheapest) {
        if (free_bits + freed >= raise.bits) break;
        Band& victim = bands[i];
        const unsigned a = victim.entry->abits;
        const unsigned to = lower_abits(a, config);
        lowered.push_back(i);
        freed += band_bit_cost(a) - band_bit_cost(to);
        loss += (measure(victim, to) - victim.entry->distortion) * victim.entry->weight;
      }
    }
    for (std::size_t i : lowered) {
      refresh(i);  // their step down is measured now, no longer modelled
    }
    if (free_bits + freed < raise.bits || !(loss < raise.gain * kExchangeMargin)) {
      // The best raises are priced against the cheapest bits there are;
      // after a few refusals the rest will not pay either.
      band.blocked = true;
      raise_rate[top] = 0.0;
      ++refusals;
      continue;
    }
    for (std::size_t i : lowered) {
      set_abits(bands[i], lower_abits(bands[i].entry->abits, config));
      refresh(i);
    }
    free_bits = free_bits + freed - raise.bits;
    set_abits(band, raise.to);
    refresh(top);
    ++moves;
    refusals = 0;
  }
  plan.total_bits = budget_bits - free_bits;
  return moves;
}

AdpcmRateResult allocate_adpcm_rates(const std::vector<const double*>& channels, AllocationPlan& plan,
                                     FramePayload& payload, std::uint64_t budget_bits,
                                     const AllocationConfig& config, const PredictionConfig& prediction,
                                     bool use_history, AdpcmStreamState& state) {
  AdpcmRateResult result;
  result.exchanges = refine_allocation(channels, plan, budget_bits, config);
  payload = payload_from_plan(channels, plan);
  const PredictionResult stage = run_prediction_stage(channels, plan, payload, budget_bits - plan.total_bits,
                                                      use_history, prediction, state.prediction);
  result.payload_bits = static_cast<std::uint64_t>(static_cast<std::int64_t>(plan.total_bits) + stage.bit_change);
  result.predicted_subbands = stage.predicted;
  result.reinvested_bits = stage.reinvested_bits;
  return result;
}

}  // namespace tavrin
