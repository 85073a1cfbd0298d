#include "alloc/allocation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "alloc/loser_tree.h"
#include "dsp/qmf_kernel.h"

namespace tavrin {

namespace {

constexpr std::size_t kSamplesPerBand = 8;

// The next step of one band: what it would cost, what it would buy, and the
// scale factor that would buy it. gain_unit excludes the channel multiplier.
struct Step {
  double gain_unit = 0.0;
  double distortion = 0.0;
  std::uint32_t delta = 0;
  std::uint32_t band = 0;  // flat index (s * channels + c) * 32 + b
  std::uint8_t abits = 0;
  std::uint8_t scale_index = 0;
  bool valid = false;
};

// What the search reads and changes of a band, together and in flat index
// order; the plan's entries are filled in from it when the search ends.
struct BandState {
  double peak = 0.0;
  double energy_term = 0.0;  // rms^2 * 1e-15, the gain's tiny energy term
  double weight = 0.0;
  double distortion = 0.0;
  std::uint8_t abits = 0;
  std::uint8_t scale_index = 0;
  bool eligible = false;  // rms above the silence threshold, peak above 1e-18
};

struct Frame {
  std::size_t channels = 0;
  QuantErrorFn error8 = nullptr;  // the process's form of the error sum
  // Reciprocals that keep the two divisions of a step's quantizer off the
  // search's critical path: 1 / (levels * step size) per ABITS, and 1 /
  // scale factor and 1 / step size for the quantum's reciprocal.
  std::array<double, kStepSizeCount> inverse_unit{}, inverse_step{};
  std::array<double, kScaleFactor6Count> inverse_scale{};
  std::vector<double> samples;  // eight contiguous samples per flat band index
  std::vector<AllocationBand*> bands;
  std::vector<BandState> state;
  std::array<std::uint32_t, kMaxPlanAbits + 1> band_bits{};  // the step prices, looked up once
};

std::uint32_t flat_index(std::size_t channels, std::size_t s, std::size_t c, std::size_t b) {
  return static_cast<std::uint32_t>((s * channels + c) * kAllocationBands + b);
}

void validate(std::size_t channels, const AllocationConfig& cfg, const PsychoAnalysis* override_analysis) {
  if (channels < 1 || channels > 5) throw std::invalid_argument("adaptive allocation requires 1..5 channels");
  if (cfg.abits_min < 8 || cfg.abits_max > 26 || cfg.abits_max < cfg.abits_min)
    throw std::invalid_argument("adaptive ABITS range must be 8..26");
  if (!(cfg.relative_silence_floor >= 0.0 && cfg.relative_silence_floor < 1.0))
    throw std::invalid_argument("invalid relative silence floor");
  if (!(cfg.high_band_weight > 0.0 && cfg.high_band_weight <= 1.0))
    throw std::invalid_argument("invalid high-band weight");
  if (!(cfg.channel_fairness >= 0.0 && cfg.channel_fairness <= 2.0))
    throw std::invalid_argument("invalid channel fairness strength");
  if (override_analysis != nullptr) {
    if (override_analysis->subframes.size() != kAllocationSubframes)
      throw std::invalid_argument("psycho override must contain 4 subframes");
    for (const auto& sub : override_analysis->subframes)
      if (sub.size() != channels * kAllocationBands)
        throw std::invalid_argument("psycho override channel count mismatch");
  }
}

// Evaluates raising band `index` by one step. Fills `step` and returns
// whether such a step exists.
bool evaluate_step(const Frame& frame, std::uint32_t index, const AllocationConfig& cfg, Step& step) {
  const BandState& band = frame.state[index];
  const unsigned abits = band.abits;
  step.valid = false;
  step.band = index;
  if (!band.eligible) return false;
  const unsigned next = abits == 0 ? cfg.abits_min : abits + 1u;
  if (next > cfg.abits_max) return false;

  const double* x = &frame.samples[static_cast<std::size_t>(index) * kSamplesPerBand];
  // band.peak is the largest magnitude of x, so the samples need no rescan;
  // the scale at the current ABITS is a close hint for the next.
  const QuantizerChoice q =
      baseline_quantizer_by_reciprocal(band.peak, next, abits == 0 ? kNoScaleHint : band.scale_index,
                                       frame.inverse_unit[next]);
  // index * quantum is the decoder's value.
  const double error = frame.error8(x, q.quantum, frame.inverse_scale[q.scale_index] * frame.inverse_step[next], q.abits);
  const double dn = error / static_cast<double>(kSamplesPerBand);
  const std::uint32_t delta = frame.band_bits[next] - frame.band_bits[abits];

  step.distortion = dn;
  step.scale_index = q.scale_index;
  step.delta = delta;
  step.abits = static_cast<std::uint8_t>(next);
  // The tiny energy term keeps a step worth taking when it removes no
  // measurable error, so spare bits still go to audible bands.
  const double gain = (band.energy_term + std::max(0.0, band.distortion - dn)) * band.weight;
  // Dividing by 8 and multiplying by 1/8 round alike; every step but the
  // first costs 8 bits, and the multiplication is much the shorter.
  step.gain_unit = delta == 8 ? gain * 0.125 : gain / static_cast<double>(delta);
  step.valid = true;
  return true;
}

void apply_step(Frame& frame, const Step& step, std::uint64_t& total) {
  BandState& band = frame.state[step.band];
  band.abits = step.abits;
  band.scale_index = step.scale_index;
  band.distortion = step.distortion;
  total += step.delta;
}

// The searches' result into the plan. The quantizer is rebuilt from its
// ABITS and scale index exactly as the quantizer lookup builds it.
void store_plan(const Frame& frame) {
  for (std::size_t i = 0; i < frame.state.size(); ++i) {
    const BandState& st = frame.state[i];
    AllocationBand& band = *frame.bands[i];
    band.abits = st.abits;
    band.distortion = st.distortion;
    if (st.abits == 0) continue;
    QuantizerChoice& q = band.quantizer;
    q.abits = st.abits;
    q.scale_index = st.scale_index;
    q.scale = kScaleFactor6[st.scale_index];
    q.step = kStepSize[st.abits];
    q.quantum = q.scale * q.step;
  }
}

void tournament_search(Frame& frame, std::uint64_t budget, const AllocationConfig& cfg, std::uint64_t& total) {
  const auto count = static_cast<std::uint32_t>(frame.bands.size());
  std::vector<Step> pending(count);
  std::vector<std::uint64_t> keys(count, 0);
  for (std::uint32_t i = 0; i < count; ++i)
    if (evaluate_step(frame, i, cfg, pending[i])) keys[i] = LoserTree::key_of(pending[i].gain_unit);
  LoserTree t;
  t.build(keys);
  // No step costs less than 8 bits, so once fewer remain every band left
  // could only be dropped: the plan is final.
  while (budget - total >= 8) {
    const LoserTree::Entry top = t.node[0];
    if (top.key == 0) break;
    Step& step = pending[top.band];
    std::uint64_t key = 0;
    if (total + step.delta <= budget) {
      apply_step(frame, step, total);
      if (evaluate_step(frame, top.band, cfg, step)) key = LoserTree::key_of(step.gain_unit);
    }  // else: this band grows no further
    t.replay(key);
  }
}

bool strictly_larger(double candidate, double kept) {
  return candidate > kept + std::max(1e-8 * std::abs(kept), 1e-24);
}

void scan_search(Frame& frame, std::uint64_t budget, const AllocationConfig& cfg, std::uint64_t& total) {
  const std::size_t nch = frame.channels;
  const auto count = static_cast<std::uint32_t>(frame.bands.size());
  const bool fairness = cfg.channel_fairness > 0.0 && nch >= 2;

  // A band's next step depends only on its own state, so it is evaluated
  // once and re-evaluated only after it is applied; the channel multiplier
  // scales the gain per pass.
  std::vector<Step> steps(count);
  for (std::uint32_t i = 0; i < count; ++i) evaluate_step(frame, i, cfg, steps[i]);

  std::array<double, 5> demand{};
  if (fairness) {
    for (std::uint32_t i = 0; i < count; ++i) {
      const std::size_t c = (i / kAllocationBands) % nch;
      const BandState& band = frame.state[i];
      demand[c] += band.weight * band.distortion;  // still the band's energy here
    }
  }

  std::array<double, 5> multiplier{};
  for (;;) {
    multiplier.fill(1.0);
    if (fairness) {
      std::array<double, 5> share{};
      for (std::uint32_t i = 0; i < count; ++i) {
        const std::size_t c = (i / kAllocationBands) % nch;
        const BandState& band = frame.state[i];
        share[c] += band.weight * band.distortion;
      }
      double sum = 0.0;
      std::size_t used = 0;
      for (std::size_t c = 0; c < nch; ++c) {
        if (demand[c] > 1e-30) {
          share[c] /= demand[c];
          sum += share[c];
          ++used;
        }
      }
      const double mean = used > 0 ? sum / static_cast<double>(used) : 0.0;
      if (mean > 1e-30) {
        for (std::size_t c = 0; c < nch; ++c)
          if (demand[c] > 1e-30)
            multiplier[c] = std::pow(std::clamp(share[c] / mean, 0.25, 4.0), cfg.channel_fairness);
      }
    }

    std::int64_t kept = -1;
    double kept_gain = 0.0;
    for (std::uint32_t i = 0; i < count; ++i) {
      const Step& st = steps[i];
      if (!st.valid || total + st.delta > budget) continue;
      const double gain = st.gain_unit * multiplier[(i / kAllocationBands) % nch];
      if (kept < 0 || strictly_larger(gain, kept_gain)) {
        kept = i;
        kept_gain = gain;
      }
    }
    if (kept < 0) break;
    const auto index = static_cast<std::uint32_t>(kept);
    apply_step(frame, steps[index], total);
    evaluate_step(frame, index, cfg, steps[index]);
  }
}

bool scan_switch_from_environment() {
  const char* value = std::getenv("TAVRIN_DTS_ALLOCATOR_SCAN");
  return value != nullptr && value[0] == '1';
}

}  // namespace

AllocationConfig stereo_allocation_config() { return AllocationConfig{}; }

std::uint64_t count_allocation_bits(const AllocationPlan& plan, std::size_t channels) {
  if (plan.subframes.size() != kAllocationSubframes)
    throw std::runtime_error("allocation subframe count mismatch");
  const PayloadCosts& costs = payload_costs();
  if (channels < 1 || channels > kMaxPlanChannels) throw std::runtime_error("allocation channel count mismatch");
  std::uint64_t bits = costs.side_bits[channels];
  for (const auto& sub : plan.subframes) {
    if (sub.size() != channels) throw std::runtime_error("allocation channel count mismatch");
    for (const auto& bands : sub) {
      if (bands.size() != kAllocationBands) throw std::runtime_error("allocation band count mismatch");
      for (const AllocationBand& band : bands) bits += costs.band_bits[band.abits];
    }
  }
  return bits;
}

double perceptual_error(const PsychoAnalysis& analysis, const AllocationPlan& plan) {
  if (analysis.subframes.size() != kAllocationSubframes || plan.subframes.size() != kAllocationSubframes)
    throw std::runtime_error("psycho/MSE subframe mismatch");
  double sum = 0.0;
  for (std::size_t s = 0; s < kAllocationSubframes; ++s) {
    const auto& records = analysis.subframes[s];
    const auto& sub = plan.subframes[s];
    if (records.size() % kPsychoBands != 0) throw std::runtime_error("psycho/MSE band mismatch");
    if (records.size() / kPsychoBands != sub.size()) throw std::runtime_error("psycho/MSE channel mismatch");
    for (std::size_t c = 0; c < sub.size(); ++c) {
      if (sub[c].size() != kPsychoBands) throw std::runtime_error("psycho/MSE band mismatch");
      for (std::size_t b = 0; b < kPsychoBands; ++b)
        sum += records[c * kPsychoBands + b].weight * sub[c][b].distortion;
    }
  }
  return sum;
}

AllocationPlan allocate_with_scan(const std::vector<const double*>& channels, std::uint64_t budget_bits,
                                  const AllocationConfig& cfg, const PsychoAnalysis* psycho_override,
                                  bool scan_switch) {
  const std::size_t nch = channels.size();
  validate(nch, cfg, psycho_override);

  // The model runs on every call so that its configuration is always
  // checked; its result is only needed when no override is supplied.
  validate_psycho(nch, cfg.psycho);
  PsychoAnalysis own;
  if (psycho_override == nullptr) own = analyse_psycho(channels, nullptr, cfg.psycho);
  const PsychoAnalysis& analysis = psycho_override != nullptr ? *psycho_override : own;

  AllocationPlan plan;
  plan.psycho_weighting = cfg.psycho_weighting;
  plan.subframes.assign(kAllocationSubframes,
                        std::vector<std::vector<AllocationBand>>(nch, std::vector<AllocationBand>(kAllocationBands)));

  Frame frame;
  frame.channels = nch;
  // Every form of the error sum gives the same plan.
  frame.error8 = qmf_kernel().quantization_error8;
  frame.band_bits = payload_costs().band_bits;
  for (unsigned a = 8; a < kStepSizeCount; ++a) {
    frame.inverse_unit[a] = 1.0 / (static_cast<double>((std::int32_t{1} << (a - 4)) - 1) * kStepSize[a]);
    frame.inverse_step[a] = 1.0 / kStepSize[a];
  }
  for (std::size_t i = 0; i < kScaleFactor6Count; ++i) frame.inverse_scale[i] = 1.0 / kScaleFactor6[i];
  frame.samples.resize(kAllocationSubframes * nch * kAllocationBands * kSamplesPerBand);
  frame.bands.resize(kAllocationSubframes * nch * kAllocationBands);
  frame.state.resize(frame.bands.size());

  double rmax = 0.0;
  for (std::size_t s = 0; s < kAllocationSubframes; ++s) {
    for (std::size_t c = 0; c < nch; ++c) {
      for (std::size_t b = 0; b < kAllocationBands; ++b) {
        const std::uint32_t i = flat_index(nch, s, c, b);
        double* x = &frame.samples[static_cast<std::size_t>(i) * kSamplesPerBand];
        double sum_sq = 0.0, peak = 0.0;
        for (std::size_t k = 0; k < kSamplesPerBand; ++k) {
          x[k] = channels[c][s * 256 + k * 32 + b];
          sum_sq += x[k] * x[k];
          peak = std::max(peak, std::abs(x[k]));
        }
        AllocationBand& band = plan.subframes[s][c][b];
        frame.bands[i] = &band;
        const double energy = sum_sq / static_cast<double>(kSamplesPerBand);
        band.rms = std::sqrt(energy);
        band.peak = peak;
        band.distortion = energy;
        if (cfg.psycho_weighting == 1) {
          band.weight = analysis.subframes[s][c * kPsychoBands + b].weight;
        } else {
          const double t = b <= 20 ? 0.0 : static_cast<double>(b - 20) / 11.0;
          band.weight = (1.0 - t) + t * cfg.high_band_weight;
        }
        rmax = std::max(rmax, band.rms);
        BandState& st = frame.state[i];
        st.peak = peak;
        st.energy_term = band.rms * band.rms * 1e-15;
        st.weight = band.weight;
        st.distortion = energy;
      }
    }
  }

  plan.total_bits = count_allocation_bits(plan, nch);
  if (budget_bits < plan.total_bits)
    throw std::runtime_error("target payload budget is smaller than DTS side information");

  const double threshold = rmax * cfg.relative_silence_floor;
  for (std::size_t i = 0; i < frame.state.size(); ++i)
    frame.state[i].eligible = frame.bands[i]->rms > threshold && frame.state[i].peak > 1e-18;
  if (cfg.channel_fairness > 0.0 || scan_switch)
    scan_search(frame, budget_bits, cfg, plan.total_bits);
  else
    tournament_search(frame, budget_bits, cfg, plan.total_bits);
  store_plan(frame);

  plan.perceptual_error = perceptual_error(analysis, plan);
  if (count_allocation_bits(plan, nch) != plan.total_bits) throw std::runtime_error("adaptive bit accounting mismatch");
  return plan;
}

AllocationPlan allocate(const std::vector<const double*>& channels, std::uint64_t budget_bits,
                        const AllocationConfig& config, const PsychoAnalysis* psycho_override) {
  return allocate_with_scan(channels, budget_bits, config, psycho_override, scan_switch_from_environment());
}

}  // namespace tavrin
