#include "alloc/prediction_stage.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "alloc/plan_payload.h"
#include "dsp/quantizer.h"

namespace tavrin {

namespace {

constexpr std::size_t kBands = 32;
constexpr std::size_t kSamples = 8;
constexpr std::size_t kSpan = 4 + kSamples;  // four reconstructed samples of history, then the block
constexpr unsigned kMinAbits = 8;
constexpr unsigned kMaxAbits = 26;
// A band whose least-squares predictor shows it unpredictable (noise, most
// often) rests before its next decision, the longer the more often in a
// row: a subframe after the second time, then 3, 7, 15. Bands coded at or
// below kCoarseAbits rest up to 16 subframes, finer ones at most 2, as
// finer bands are where a late start costs most. Measured on tones, sweeps
// and programme, the rests lose nothing and save most of the decisions.
constexpr unsigned kCoarseAbits = 10;
constexpr std::uint64_t kCoarseMaxRest = 16;
constexpr std::uint64_t kFineMaxRest = 2;

// One band of one subframe, coded one way, with what a decoder makes of it.
struct BandCoding {
  std::uint8_t abits = 0;
  std::uint8_t scale = 0;
  std::uint8_t pmode = 0;
  std::uint16_t pvq = 0;
  std::array<std::int32_t, kSamples> q{};
  std::array<std::int32_t, kSamples> y{};
  double error = 0.0;  // sum of (x - y)^2
};

double squared_error(const double* x, const std::array<std::int32_t, kSamples>& y) {
  double sum = 0.0;
  for (std::size_t k = 0; k < kSamples; ++k) {
    const double d = x[k] - y[k];
    sum += d * d;
  }
  return sum;
}

double peak_of(const double* x) {
  double peak = 0.0;
  for (std::size_t k = 0; k < kSamples; ++k) peak = std::max(peak, std::abs(x[k]));
  return peak;
}

BandCoding code_direct(const double* x, unsigned abits) {
  BandCoding c;
  if (abits != 0) {
    const QuantizerChoice choice = baseline_quantizer_for_peak(peak_of(x), abits, abits);
    c.abits = choice.abits;  // 0 for a silent band
    c.scale = choice.scale_index;
    for (std::size_t k = 0; k < kSamples && c.abits != 0; ++k) {
      c.q[k] = quantize(x[k], choice);
      c.y[k] = decoder_dequantize(c.q[k], c.abits, c.scale);
    }
  }
  c.error = squared_error(x, c.y);
  return c;
}

BandCoding code_predicted(const double* x, unsigned abits, std::uint16_t pvq, const AdpcmHistory& history) {
  const AdpcmVqEntry& entry = kAdpcmVq[pvq];
  BandCoding c;
  c.abits = static_cast<std::uint8_t>(abits);
  c.pmode = 1;
  c.pvq = pvq;
  if (abits == 0) {
    // Prediction alone: without audio data a decoder continues the band
    // from its history, for the price of the PVQ.
    AdpcmHistory h = history;
    for (std::size_t k = 0; k < kSamples; ++k) {
      c.y[k] = decoder_prediction(h, entry);
      push_history(h, c.y[k]);
    }
    c.error = squared_error(x, c.y);
    return c;
  }
  c.scale = code_adpcm_residual(x, kSamples, abits, entry, history, c.q.data(), c.y.data()).scale;
  c.error = squared_error(x, c.y);
  return c;
}

std::int64_t coding_bits(const BandCoding& c, const PayloadCosts& costs) {
  return std::int64_t{costs.band_bits[c.abits]} + (c.pmode != 0 ? std::int64_t{costs.pvq_bits} : 0);
}

// One band of the subframe being revised.
struct Slot {
  const double* x = nullptr;  // eight contiguous samples
  double weight = 0.0;
  AdpcmHistory history{};
  BandCoding current;
  // Prediction as decided on the band's span: the entry, and its gain
  // there, which models what switching would remove.
  bool can_predict = false;
  std::uint16_t pvq = 0;
  double gain_db = 0.0;
  double energy = 0.0;  // sum of x^2: the error of a silent band
  // The band's next move up: its price and the weighted error it removes
  // per bit, modelled until `exact` (then `move` holds it coded).
  BandCoding move;
  std::int64_t move_bits = 0;
  double move_rate = 0.0;
  bool exact = false;
  bool switching = false;  // the move is to prediction at the same ABITS
  bool fundable = false;   // the move involves prediction: other bands may pay for it
  bool blocked = false;    // no longer considered in this subframe
  // What a step down would add per bit it frees, kept until the coding
  // changes: funding ranks every band for each move it pays for.
  double loss_rate = 0.0;
  bool loss_known = false;
};

double step_ratio_squared(unsigned from, unsigned to) {
  const double r = kStepSize[to] / kStepSize[from];
  return r * r;
}

// The band's best next move, priced from models: a uniform quantizer's
// error goes with its step squared, and prediction removes its gain. Only
// the winners of the search are coded (make_exact).
void model_move(Slot& slot, const PayloadCosts& costs, std::int64_t spare) {
  const BandCoding& cur = slot.current;
  slot.exact = false;
  slot.move_rate = 0.0;
  slot.move_bits = 0;
  slot.switching = false;
  slot.fundable = false;
  if (cur.pmode == 0 && cur.abits != 0 && slot.can_predict) {
    slot.move_bits = costs.pvq_bits;
    slot.move_rate = cur.error * (1.0 - std::pow(10.0, -slot.gain_db / 10.0)) * slot.weight /
                     static_cast<double>(slot.move_bits);
    slot.switching = true;
    slot.fundable = true;
  }
  // A band without audio data cannot have its first step modelled from its
  // error; the step (direct, or prediction alone from a silent band) is
  // coded at once.
  if (cur.abits == 0 && peak_of(slot.x) > 1e-18) {
    const auto consider = [&](BandCoding up) {
      const std::int64_t bits = coding_bits(up, costs) - coding_bits(cur, costs);
      const double rate = bits > 0 ? (cur.error - up.error) * slot.weight / static_cast<double>(bits) : 0.0;
      if (rate > slot.move_rate) {
        slot.move = std::move(up);
        slot.move_bits = bits;
        slot.move_rate = rate;
        slot.exact = true;
        slot.switching = false;
        slot.fundable = slot.move.pmode != 0;
      }
    };
    if (cur.pmode != 0) {
      consider(code_predicted(slot.x, kMinAbits, cur.pvq, slot.history));
    } else {
      // Direct steps are paid from spare bits only; the first costs the most.
      if (spare >= static_cast<std::int64_t>(costs.band_bits[kMinAbits])) consider(code_direct(slot.x, kMinAbits));
      if (slot.can_predict) consider(code_predicted(slot.x, 0, slot.pvq, slot.history));
    }
  }
  if (cur.abits != 0 && cur.abits < kMaxAbits) {
    const std::int64_t bits = std::int64_t{costs.band_bits[cur.abits + 1u]} - costs.band_bits[cur.abits];
    const double rate =
        cur.error * (1.0 - step_ratio_squared(cur.abits, cur.abits + 1u)) * slot.weight / static_cast<double>(bits);
    if (rate > slot.move_rate && (cur.pmode != 0 || bits <= spare)) {
      slot.move_rate = rate;
      slot.move_bits = bits;
      slot.switching = false;
      slot.fundable = cur.pmode != 0;
    }
  }
}

// Codes the modelled move and prices it by what it really removes.
void make_exact(Slot& slot, const PayloadCosts& costs) {
  const BandCoding& cur = slot.current;
  if (slot.switching) {
    slot.move = code_predicted(slot.x, cur.abits, slot.pvq, slot.history);
  } else if (cur.pmode != 0) {
    slot.move = code_predicted(slot.x, cur.abits + 1u, cur.pvq, slot.history);
  } else {
    slot.move = code_direct(slot.x, cur.abits == 0 ? kMinAbits : cur.abits + 1u);
  }
  slot.exact = true;
  slot.move_bits = coding_bits(slot.move, costs) - coding_bits(cur, costs);
  const double removed = (cur.error - slot.move.error) * slot.weight;
  slot.move_rate = slot.move_bits > 0 && removed > 0.0 ? removed / static_cast<double>(slot.move_bits) : 0.0;
}

// One step down: the next lower ABITS in the band's mode. From the lowest,
// a predicted band keeps its prediction alone, and any other band falls
// silent.
BandCoding step_down(const Slot& slot) {
  const BandCoding& cur = slot.current;
  if (cur.pmode != 0 && cur.abits != 0) {
    return code_predicted(slot.x, cur.abits <= kMinAbits ? 0u : cur.abits - 1u, cur.pvq, slot.history);
  }
  if (cur.abits <= kMinAbits) return code_direct(slot.x, 0);
  return code_direct(slot.x, cur.abits - 1u);
}

// What a step down frees, by the same rules.
std::int64_t bits_freed_by_step_down(const BandCoding& cur, const PayloadCosts& costs) {
  if (cur.pmode != 0 && cur.abits != 0) {
    return cur.abits <= kMinAbits ? std::int64_t{costs.band_bits[cur.abits]}
                                  : std::int64_t{costs.band_bits[cur.abits]} - costs.band_bits[cur.abits - 1u];
  }
  if (cur.abits <= kMinAbits) return coding_bits(cur, costs);
  return std::int64_t{costs.band_bits[cur.abits]} - costs.band_bits[cur.abits - 1u];
}

// The weighted error a step down would add per bit it frees, modelled, so
// that bands are ranked without being re-coded.
double modelled_loss_rate(const Slot& slot, const PayloadCosts& costs) {
  const BandCoding& cur = slot.current;
  const double energy = slot.energy;
  double after;
  if (cur.abits > kMinAbits) {
    after = cur.error * step_ratio_squared(cur.abits, cur.abits - 1u);
  } else if (cur.pmode != 0 && cur.abits != 0) {
    after = std::min(energy, energy * std::pow(10.0, -slot.gain_db / 10.0));
  } else {
    after = energy;
  }
  return (after - cur.error) * slot.weight / static_cast<double>(bits_freed_by_step_down(cur, costs));
}

// A prediction move may take bits from other bands of the subframe when the
// weighted error it removes exceeds what their steps down add by this
// factor; between near-equal choices nothing changes.
constexpr double kExchangeMargin = 1.0;

// Pays for `target`'s move beyond the spare bits by stepping down the bands
// of the subframe where that costs least. Returns whether it did.
// Reused from move to move.
struct FundingWork {
  std::vector<std::pair<double, Slot*>> ranked;
  std::vector<std::pair<Slot*, BandCoding>> victims;
  std::vector<Slot*> open;  // the bands that have a move
};

bool fund_move(std::vector<Slot>& slots, Slot& target, std::int64_t need, const PayloadCosts& costs,
               std::int64_t& spare, PredictionResult& result, FundingWork& work) {
  std::vector<std::pair<double, Slot*>>& ranked = work.ranked;
  ranked.clear();
  for (Slot& slot : slots) {
    if (&slot == &target || slot.current.abits == 0) continue;
    if (!slot.loss_known) {
      slot.loss_rate = modelled_loss_rate(slot, costs);
      slot.loss_known = true;
    }
    ranked.emplace_back(slot.loss_rate, &slot);
  }
  const double gain = target.move_rate * static_cast<double>(target.move_bits);
  std::vector<std::pair<Slot*, BandCoding>>& victims = work.victims;
  victims.clear();
  std::int64_t freed = 0;
  double loss = 0.0;
  // The cheapest first; only a few are ever needed, so each is found by a
  // scan rather than by sorting them all.
  for (auto next = ranked.begin(); next != ranked.end(); ++next) {
    if (freed >= need || !(loss * kExchangeMargin < gain)) break;
    std::iter_swap(next, std::min_element(next, ranked.end(), [](const auto& x, const auto& y) { return x.first < y.first; }));
    Slot* slot = next->second;
    BandCoding down = step_down(*slot);
    freed += bits_freed_by_step_down(slot->current, costs);
    loss += (down.error - slot->current.error) * slot->weight;
    victims.emplace_back(slot, std::move(down));
  }
  if (freed < need || !(loss * kExchangeMargin < gain)) return false;
  for (auto& [slot, down] : victims) {
    const std::int64_t bits = bits_freed_by_step_down(slot->current, costs);
    spare += bits;
    result.bit_change -= bits;
    slot->current = std::move(down);
    slot->loss_known = false;
    model_move(*slot, costs, spare);
    if (slot->move_bits > 0 && std::find(work.open.begin(), work.open.end(), slot) == work.open.end())
      work.open.push_back(slot);
  }
  return true;
}

// Spends the spare bits, and for prediction moves bits taken from where they
// buy least, on the moves that remove the most weighted error per bit.
void spend_on_best_moves(std::vector<Slot>& slots, const PayloadCosts& costs, std::int64_t& spare,
                         PredictionResult& result) {
  const bool any_prediction = std::any_of(slots.begin(), slots.end(), [](const Slot& s) { return s.can_predict; });
  if (!any_prediction && spare < 8) return;  // nothing to pay for, nothing to pay with
  // With fewer spare bits than any step costs, only moves to prediction,
  // which other bands may pay for, are worth pricing. The bands with a move
  // are kept apart, so that each round looks at them only.
  FundingWork work;
  std::vector<Slot*>& open = work.open;
  for (Slot& slot : slots) {
    slot.move_bits = 0;
    if (spare >= 8 || slot.can_predict || slot.current.pmode != 0) model_move(slot, costs, spare);
    if (slot.move_bits > 0) open.push_back(&slot);
  }
  const auto usable = [&spare](const Slot* slot) {
    return !slot->blocked && slot->move_bits > 0 && slot->move_rate > 0.0 && (slot->fundable || slot->move_bits <= spare);
  };
  // Every move lowers the weighted error and every refusal blocks a band, so
  // this ends; the cap only bounds the work on pathological subframes.
  for (std::size_t round = 0; round < 8 * slots.size(); ++round) {
    Slot* best = nullptr;
    for (std::size_t i = 0; i < open.size();) {
      Slot* slot = open[i];
      if (!usable(slot)) {
        open[i] = open.back();  // no move left: it leaves the list
        open.pop_back();
        continue;
      }
      if (best == nullptr || slot->move_rate > best->move_rate) best = slot;
      ++i;
    }
    if (best == nullptr) break;
    if (!best->exact) {
      make_exact(*best, costs);
      continue;  // priced for real now: it may no longer be the best
    }
    if (best->move_bits > spare && !fund_move(slots, *best, best->move_bits - spare, costs, spare, result, work)) {
      best->blocked = true;
      continue;
    }
    spare -= best->move_bits;
    result.bit_change += best->move_bits;
    result.reinvested_bits += static_cast<std::uint32_t>(best->move_bits);
    best->current = std::move(best->move);
    best->loss_known = false;
    model_move(*best, costs, spare);
  }
}

// Where prediction codes the band as well in fewer bits, it takes over at
// the lowest ABITS that still matches the direct error. Returns the bits
// saved.
std::int64_t predict_for_less(Slot& slot, const PredictionConfig& config, const PayloadCosts& costs,
                              BandDecisions& band, AdpcmShortlistWork& scan, std::uint64_t subframe, bool may_reuse) {
  BandCoding& cur = slot.current;
  // A silent band is worth a decision only where a decoder has something to
  // continue: prediction alone may then carry it.
  const bool silent = cur.abits == 0;
  if (silent && slot.history == AdpcmHistory{}) return 0;
  if (subframe < band.rest_until) return 0;
  double span[kSpan];
  for (std::size_t k = 0; k < 4; ++k) span[k] = slot.history[3 - k];
  std::copy(slot.x, slot.x + kSamples, span + 4);
  const PredictionDecision d =
      decide_prediction_cached(span, kSpan, config.predictor, config.shortlist, band.cache, scan, may_reuse);
  if (d.pmode == 0) {
    if (!d.ls_usable) {
      band.failures = static_cast<std::uint8_t>(std::min<unsigned>(band.failures + 1u, 8u));
      const std::uint64_t most = cur.abits <= kCoarseAbits ? kCoarseMaxRest : kFineMaxRest;
      band.rest_until = subframe + std::min<std::uint64_t>(most, (std::uint64_t{1} << band.failures) / 2);
    }
    return 0;
  }
  band.failures = 0;
  slot.can_predict = true;
  slot.pvq = d.pvq;
  slot.gain_db = d.gain_db;
  if (silent) return 0;
  // The lowest ABITS whose predicted error still matches the direct one. A
  // step down frees fewer bits than the PVQ costs, so only two or more can
  // save anything. Each step is about 5 dB, so the gain tells where to
  // start; the search then walks to the boundary.
  BandCoding best;
  if (cur.abits >= kMinAbits + 2) {
    const unsigned highest = cur.abits - 2;
    const auto steps = static_cast<unsigned>(std::max(2.0, std::floor(slot.gain_db / 5.5)));
    unsigned a = std::max(kMinAbits, cur.abits > steps ? cur.abits - steps : kMinAbits);
    BandCoding trial = code_predicted(slot.x, a, slot.pvq, slot.history);
    if (trial.error <= cur.error) {
      best = std::move(trial);
      // A step down multiplies the error by about its step ratio squared;
      // where that clearly overshoots, the trial is not worth coding.
      while (a > kMinAbits && best.error * step_ratio_squared(a, a - 1) <= 2.0 * cur.error) {
        trial = code_predicted(slot.x, --a, slot.pvq, slot.history);
        if (trial.error > cur.error) break;
        best = std::move(trial);
      }
    } else {
      while (++a <= highest) {
        trial = code_predicted(slot.x, a, slot.pvq, slot.history);
        if (trial.error <= cur.error) {
          best = std::move(trial);
          break;
        }
      }
    }
  }
  if (best.pmode == 0) return 0;
  const std::int64_t saved = coding_bits(cur, costs) - coding_bits(best, costs);
  if (saved <= 0) return 0;
  cur = std::move(best);
  return saved;
}

void store(const BandCoding& c, Subframe& sub, std::size_t channel, std::size_t band) {
  sub.abits[channel][band] = c.abits;
  sub.scale[channel][band] = c.abits != 0 ? c.scale : 0;
  sub.pmode[channel][band] = c.pmode;
  sub.pvq[channel][band] = c.pmode != 0 ? c.pvq : 0;
  for (std::size_t k = 0; k < kSamples; ++k) sub.audio[channel][band * kSamples + k] = c.abits != 0 ? c.q[k] : 0;
}

}  // namespace

PredictionConfig prediction_config_from_environment() {
  PredictionConfig config;
  const char* value = std::getenv("TAVRIN_DTS_ADPCM");
  config.enabled = !(value != nullptr && value[0] == '0');
  return config;
}

PredictionResult run_prediction_stage(const std::vector<const double*>& channels, const AllocationPlan& plan,
                                      FramePayload& payload, std::uint64_t free_bits, bool use_history,
                                      const PredictionConfig& config, PredictionHistory& history) {
  const std::size_t nch = channels.size();
  const PayloadCosts& costs = payload_costs();
  if (history.bands.size() != nch * kBands || !use_history) history.bands.assign(nch * kBands, AdpcmHistory{});
  history.decisions.resize(nch * kBands);
  // Without history the decoders start from silence, and they do not agree
  // on how prediction continues inside such a frame, so none is used there.
  const bool predict = config.enabled && use_history;

  PredictionResult result;
  auto spare = static_cast<std::int64_t>(free_bits);
  std::vector<Slot> slots(nch * kBands);
  std::vector<double> samples(nch * kBands * kSamples);
  for (std::size_t s = 0; s < payload.subframes.size(); ++s) {
    Subframe& sub = payload.subframes[s];
    for (std::size_t c = 0; c < nch; ++c) {
      for (std::size_t b = 0; b < kBands; ++b) {
        Slot& slot = slots[c * kBands + b];
        double* x = &samples[(c * kBands + b) * kSamples];
        for (std::size_t k = 0; k < kSamples; ++k) x[k] = channels[c][s * kBands * kSamples + k * kBands + b];
        // Field by field: the slot's move is only read once it is made.
        slot.x = x;
        slot.weight = plan.subframes[s][c][b].weight;
        slot.history = history.bands[c * kBands + b];
        slot.can_predict = false;
        slot.pvq = 0;
        slot.gain_db = 0.0;
        slot.move_bits = 0;
        slot.move_rate = 0.0;
        slot.exact = slot.switching = slot.fundable = slot.blocked = slot.loss_known = false;
        BandCoding& cur = slot.current;
        cur.abits = sub.abits[c][b];
        cur.scale = sub.scale[c][b];
        cur.pmode = 0;
        cur.pvq = 0;
        for (std::size_t k = 0; k < kSamples; ++k) {
          cur.q[k] = cur.abits != 0 ? sub.audio[c][b * kSamples + k] : 0;
          cur.y[k] = cur.abits != 0 ? decoder_dequantize(cur.q[k], cur.abits, cur.scale) : 0;
        }
        cur.error = squared_error(x, cur.y);
        slot.energy = 0.0;
        for (std::size_t k = 0; k < kSamples; ++k) slot.energy += x[k] * x[k];
      }
    }
    if (predict) {
      for (Slot& slot : slots) {
        const auto band = static_cast<std::size_t>(&slot - slots.data());
        const std::uint64_t now = history.subframes + s;
        const std::int64_t saved = predict_for_less(slot, config, costs, history.decisions[band], history.scan, now,
                                                    now % config.rescan_every != 0);
        spare += saved;
        result.bit_change -= saved;
      }
    }
    spend_on_best_moves(slots, costs, spare, result);
    for (std::size_t c = 0; c < nch; ++c) {
      for (std::size_t b = 0; b < kBands; ++b) {
        const Slot& slot = slots[c * kBands + b];
        store(slot.current, sub, c, b);
        result.predicted += slot.current.pmode;
        AdpcmHistory& h = history.bands[c * kBands + b];
        for (const std::int32_t y : slot.current.y) push_history(h, y);
      }
    }
  }
  history.subframes += payload.subframes.size();
  return result;
}

}  // namespace tavrin
