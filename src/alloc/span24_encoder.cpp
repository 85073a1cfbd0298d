#include "alloc/span24_encoder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

#include "alloc/loser_tree.h"
#include "alloc/plan_payload.h"
#include "alloc/span24_prediction.h"
#include "bitstream/bit_writer.h"
#include "bitstream/frame_header.h"
#include "dsp/qmf_kernel.h"
#include "dsp/quantizer.h"

namespace tavrin {

namespace {

constexpr unsigned kBands = 32;
constexpr unsigned kChannels = 2;
constexpr unsigned kMaxAbits = 26;
constexpr unsigned kSsfSamples = 8;
constexpr unsigned kMaxSubframes = 4;
constexpr unsigned kMaxSpan = kSpan24MaxSamples;  // samples of the longest subframe
constexpr unsigned kJumpReach = 4;
constexpr unsigned kWideJumpReach = 8;
constexpr unsigned kFlatTmodeBook = 3;  // every TMODE value in 2 bits
// Frames whose subsubframes' stakes differ by less than this gain too
// little from subframes of 8 to be worth the second allocation (measured on
// the drum signals, where 9 dB missed half of what 3 dB finds).
constexpr double kSplitStakeRatio = 2.0;
constexpr unsigned kFinerBelow = 8;
constexpr double kPredictableResidual = 0.5;
// The noise-to-mask term of the production objective, against the weighted
// error's stake over the frame: from 0.03 to 1 the test signals' NMR moves
// by tenths of a dB; 0.1 is the best of those at 768 kbit/s.
constexpr double kMaskStake = 0.1;
// The mask term stops paying for less noise 60 dB under the mask. Without a
// floor it bought noise in near silence down to -110 dBFS with the largest
// ABITS and took those bits from the attack beside it; at 40 dB it gave up
// more than the 60 dB floor on the test signals at 768 and 1024 kbit/s.
constexpr double kMaskDepth = 1e-6;
// A band's energy rising this much (9 dB) from one subsubframe to the next
// is an attack whose pre-ringing needs guarding (3x does the same on the
// test signals).
constexpr double kAttackRise = 8.0;
// The share of a subsubframe's coding noise that the synthesis filter
// spreads into the one before. Half takes 1-8 dB more pre-echo off the
// drums and castanets at 768 kbit/s than none; all of it costs the
// castanets 5 dB of NMR there.
constexpr double kLeakBack = 0.5;
// An onset by the psychoacoustic model's measure (0.5: a 6 dB rise from the
// subsubframe before, across frames too), a band that stays within 15 dB of
// it for the rest of the frame, and the weight of its error when both hold
// at the frame's start (64x buys no more than 16x on the test signals).
constexpr double kOnset = 0.5;
constexpr double kSustained = 0.03;
constexpr double kFrameStartAttackWeight = 16.0;

// ---- What the payload costs, counted by the payload writer ------------------

// How a frame's four subsubframes are grouped into subframes. Every frame
// starts as 24 + 8; a frame with a sharp attack is also tried as four
// subframes of 8, where each subsubframe gets an ABITS of its own and the
// attack can have bits the quiet ones around it do not pay for.
struct Layout {
  unsigned subframes = 0;
  std::array<unsigned, kMaxSubframes> ssc{};
};
constexpr std::array<Layout, 2> kLayouts{{{2, {3, 1, 0, 0}}, {4, {1, 1, 1, 1}}}};
constexpr unsigned kSpanLayout = 0;
constexpr unsigned kShortLayout = 1;

FramePayload blank_payload(const Layout& layout) {
  FramePayload p;
  p.header = legacy_primary_header(kChannels);
  p.header.subfs = static_cast<std::uint8_t>(layout.subframes);
  p.block_codes = true;
  for (unsigned s = 0; s < layout.subframes; ++s) p.subframes.push_back(blank_subframe(kChannels, kBands, layout.ssc[s]));
  return p;
}

struct Span24Costs {
  std::uint64_t side_bits = 0;  // primary header and every subframe with every band silent
  // [subframe][abits]: one band's audio and first scale factor, without its
  // TMODE code.
  std::array<std::array<std::uint32_t, kMaxAbits + 1>, kMaxSubframes> band_bits{};
  std::uint32_t second_scale_bits = 0;  // 0 where no subframe can split
  std::uint32_t predictor_bits = 0;     // a predicted band's PVQ
};

Span24Costs measure_costs(const Layout& layout) {
  Span24Costs costs;
  FramePayload blank = blank_payload(layout);
  blank.header.thuff.assign(kChannels, kFlatTmodeBook);
  costs.side_bits = payload_bit_count(blank);
  for (unsigned s = 0; s < layout.subframes; ++s) {
    for (unsigned a = 1; a <= kMaxAbits; ++a) {
      FramePayload one = blank;
      one.subframes[s].abits[0][0] = static_cast<std::uint8_t>(a);
      const std::uint64_t tmode_bits = layout.ssc[s] > 1 ? tmode_code_length(kFlatTmodeBook, 0) : 0;
      costs.band_bits[s][a] = static_cast<std::uint32_t>(payload_bit_count(one) - costs.side_bits - tmode_bits);
    }
  }
  FramePayload predicted = blank;
  predicted.subframes[0].abits[0][0] = 8;
  predicted.subframes[0].pmode[0][0] = 1;
  const std::uint64_t first_tmode = layout.ssc[0] > 1 ? tmode_code_length(kFlatTmodeBook, 0) : 0;
  costs.predictor_bits = static_cast<std::uint32_t>(payload_bit_count(predicted) - costs.side_bits - first_tmode -
                                                    costs.band_bits[0][8]);
  for (unsigned s = 0; s < layout.subframes; ++s) {
    if (layout.ssc[s] < 2) continue;
    FramePayload split = blank;
    split.subframes[s].abits[0][0] = 8;
    split.subframes[s].tmode[0][0] = 1;
    costs.second_scale_bits = static_cast<std::uint32_t>(payload_bit_count(split) - costs.side_bits -
                                                         tmode_code_length(kFlatTmodeBook, 1) - costs.band_bits[s][8]);
    break;
  }
  return costs;
}

const Span24Costs& span24_costs(unsigned layout) {
  static const std::array<Span24Costs, kLayouts.size()> costs{measure_costs(kLayouts[0]), measure_costs(kLayouts[1])};
  return costs[layout];
}

// ---- Allocation units -------------------------------------------------------

constexpr std::array<double, kMaxAbits + 1> filled_with_nan() {
  std::array<double, kMaxAbits + 1> a{};
  a.fill(std::numeric_limits<double>::quiet_NaN());
  return a;
}

// One band of one channel in one subframe, with everything its steps need.
struct Unit {
  unsigned sub = 0, channel = 0, band = 0;
  unsigned ssc = 0;        // subsubframes
  unsigned count = 0;      // samples: 8 per subsubframe
  unsigned first_ssf = 0;  // the frame's subsubframe of sample 0
  unsigned tmode = 0;      // first subsubframe of the second scale (0: one scale)
  std::array<double, kMaxSpan> x{};
  std::array<double, 2> peak{};        // largest magnitude before the split and from it on
  std::array<unsigned, 2> part_start{};  // first sample of each part
  std::array<unsigned, 2> part_end{};
  std::array<double, 3> weight{};      // per subsubframe: what a unit of squared error costs
  std::array<double, 3> floor{};       // per subsubframe: the log measure's floor
  std::array<double, 3> mask_weight{};  // per subsubframe: the mask term's weight
  std::array<double, 3> mask_floor{};   // and the error below which it gains nothing
  unsigned abits = 0;
  double value = 0.0;  // the objective at abits
  double least = 0.0;  // the objective with no error left
  // The objective at each ABITS once measured; NaN until then.
  std::array<double, kMaxAbits + 1> known = filled_with_nan();
  // Bit a of part p: the measure at ABITS a took the scale a step below the
  // part's peak, so that coding the unit need not weigh the two again.
  std::array<std::uint32_t, 2> finer{};
  // The scale last measured, near the next one: the table search starts there.
  std::array<unsigned, 2> scale_hint{kNoScaleHint, kNoScaleHint};
  // Coded as the residual of a predictor, and then settled: its band takes
  // no more steps, or the decoders' history it was coded against would
  // change under it.
  std::optional<Span24PredictedBand> predicted;
  bool settled = false;
  QuantErrorFn error8 = nullptr;  // the selected kernel's error sum for the direct codes
  // The best next step.
  unsigned next = 0;  // 0: none
  double next_value = 0.0;
  double gain = 0.0;  // objective lowered per bit
  std::uint32_t step_bits = 0;
};

// One part of a unit coded at some ABITS: its quantizer and the squared
// error it leaves in each subsubframe.
struct PartCode {
  QuantizerChoice choice;
  std::array<double, 3> error{};
  bool finer = false;  // a scale step below the one the peak fits
};

// Squared error of each subsubframe of a part at `choice`.
// The direct codes go through the selected kernel (AVX2 where the machine
// has it), which gives the same sums bit for bit.
void part_errors(const Unit& u, unsigned part, const QuantizerChoice& choice, std::array<double, 3>& error) {
  if (choice.abits >= 8) {
    const double inverse = 1.0 / choice.quantum;
    for (unsigned i = u.part_start[part]; i < u.part_end[part]; i += kSsfSamples)
      error[i / kSsfSamples] = u.error8(u.x.data() + i, choice.quantum, inverse, choice.abits);
    return;
  }
  for (unsigned i = u.part_start[part]; i < u.part_end[part]; i += kSsfSamples) {
    error[i / kSsfSamples] = quantization_error<kSsfSamples>(u.x.data() + i, choice);
  }
}

// The scale at which the part's peak just fits is not always the one with
// the least error: a step smaller clips the peak a little but quantizes the
// rest finer. Trying both keeps the error falling as ABITS rises, which the
// step-by-step search relies on. Above the block codes the finer grid gains
// little (no test signal's noise-to-mask ratio moves by more than 0.3 dB
// when it is not tried there), and the second try would double the cost.
PartCode code_part(const Unit& u, unsigned part, unsigned abits) {
  PartCode fit{quantizer_at(u.peak[part], abits, u.scale_hint[part])};
  part_errors(u, part, fit.choice, fit.error);
  if (fit.choice.scale_index == 0 || abits >= kFinerBelow) return fit;
  PartCode finer{quantizer_choice(abits, kScaleFactor6.data() + fit.choice.scale_index - 1), {}, true};
  part_errors(u, part, finer.choice, finer.error);
  const auto total = [](const PartCode& p) { return p.error[0] + p.error[1] + p.error[2]; };
  return total(finer) < total(fit) ? finer : fit;
}

// The quantizer code_part chose when the unit was measured at `abits`.
QuantizerChoice part_quantizer(const Unit& u, unsigned part, unsigned abits) {
  const QuantizerChoice fit = quantizer_at(u.peak[part], abits);
  if ((u.finer[part] >> abits & 1u) == 0) return fit;
  return quantizer_choice(abits, kScaleFactor6.data() + fit.scale_index - 1);
}

// Squared error of each subsubframe at ABITS a (a = 0: the signal itself).
std::array<double, 3> errors_at(Unit& u, unsigned a) {
  std::array<double, 3> e{};
  if (a == 0) {
    for (unsigned i = 0; i < u.count; ++i) e[i / kSsfSamples] += u.x[i] * u.x[i];
    return e;
  }
  const unsigned parts = u.tmode > 0 ? 2 : 1;
  for (unsigned part = 0; part < parts; ++part) {
    const PartCode coded = code_part(u, part, a);
    u.scale_hint[part] = coded.choice.scale_index;
    if (coded.finer) u.finer[part] |= 1u << a;
    for (unsigned j = 0; j < 3; ++j) e[j] += coded.error[j];
  }
  return e;
}

// The objective at ABITS a; each ABITS is measured once per unit, however
// often the search comes back to it.
double measure(const Unit& u, const std::array<double, 3>& e, Span24Objective kind) {
  double v = 0.0;
  for (unsigned j = 0; j < u.ssc; ++j) {
    v += kind == Span24Objective::log_error ? 10.0 * std::log10(e[j] + u.floor[j]) : u.weight[j] * e[j];
    if (kind == Span24Objective::weighted_and_mask) v += u.mask_weight[j] * std::max(e[j], u.mask_floor[j]);
  }
  return v;
}

double objective(Unit& u, unsigned a, Span24Objective kind) {
  if (u.known[a] != u.known[a]) u.known[a] = measure(u, errors_at(u, a), kind);
  return u.known[a];
}

struct Budget {
  const Span24Costs* costs = nullptr;
  std::array<unsigned, kChannels> thuff{};
};

// What a coded unit pays beyond its audio and first scale factor: the TMODE
// code and the second scale factor.
std::uint32_t split_bits(const Unit& u, const Budget& b) {
  if (u.ssc < 2) return 0;
  return tmode_code_length(b.thuff[u.channel], u.tmode) + (u.tmode > 0 ? b.costs->second_scale_bits : 0);
}

std::uint32_t unit_bits(const Unit& u, unsigned a, const Budget& b) {
  if (a == 0) return 0;
  return b.costs->band_bits[u.sub][a] + split_bits(u, b) + (u.predicted ? b.costs->predictor_bits : 0);
}

// The step from the unit's ABITS that lowers the objective most per bit
// within `remaining` bits.
//
// Error does not always fall with ABITS: a band whose samples sit near a
// coarse grid's points (three clusters suit three levels) may gain nothing
// for several steps. A search that finds no gain within its reach looks all
// the way up before it gives the band up, or such a band would stay coarse
// however many bits the frame has.
void find_step(Unit& u, std::uint64_t remaining, const Budget& budget, const Span24Settings& settings) {
  u.next = 0;
  u.gain = 0.0;
  if (u.settled || (u.peak[0] == 0.0 && u.peak[1] == 0.0)) return;  // silence: nothing to lower
  const std::uint32_t now = unit_bits(u, u.abits, budget);
  const std::uint32_t extra = split_bits(u, budget);
  const auto& band_bits = budget.costs->band_bits[u.sub];
  const unsigned reach = settings.jump_reach;
  for (unsigned a = u.abits + 1; a <= kMaxAbits; ++a) {
    if (a > u.abits + reach && u.next != 0) break;
    const std::uint32_t bits = band_bits[a] + extra - now;
    if (bits > remaining) break;
    // Not even an error of nothing at all would make this step pay better
    // than the best so far: it need not be measured. Once a band's steps
    // each remove most of its error, as they do from the first few ABITS
    // up, only the next ABITS is measured at all.
    if (u.next != 0 && (u.value - u.least) * u.step_bits <= (u.value - u.next_value) * bits) continue;
    const double v = objective(u, a, settings.objective);
    // Compared as products: the division is done once, for the best.
    if (u.next == 0 ? v < u.value : (u.value - v) * u.step_bits > (u.value - u.next_value) * bits) {
      u.next = a;
      u.next_value = v;
      u.step_bits = bits;
    }
  }
  if (u.next != 0) u.gain = (u.value - u.next_value) / u.step_bits;
}

// TMODE: the split that separates the quiet and the loud part of the
// subframe best, when they differ by 6 dB or more; the quiet part then
// gets a scale of its own instead of the loud part's noise.
unsigned choose_tmode(const Unit& u) {
  std::array<double, 3> p{};
  for (unsigned i = 0; i < u.count; ++i) p[i / kSsfSamples] = std::max(p[i / kSsfSamples], std::abs(u.x[i]));
  unsigned best = 0;
  double best_ratio = 2.0;
  for (unsigned t = 1; t < u.ssc; ++t) {
    double before = 0.0, after = 0.0;
    for (unsigned j = 0; j < u.ssc; ++j) {
      double& side = j < t ? before : after;
      side = std::max(side, p[j]);
    }
    const double ratio = std::max(before, after) / std::max(std::min(before, after), 1e-12);
    if (ratio > best_ratio) {
      best_ratio = ratio;
      best = t;
    }
  }
  return best;
}

// What a unit of squared error costs in each subsubframe and band of the
// frame (channel * 32 + band) by the objective, what the mask term adds
// down to its floor, and the floor under the decibel measure. Worked out
// once per frame, for both layouts.
using BandTable = std::array<std::array<double, kChannels * kBands>, kMaxSubframes>;
struct FrameWeights {
  BandTable weight{};
  BandTable mask_weight{};
  BandTable mask_floor{};
  BandTable log_floor{};
};

// What a unit of squared error costs the noise-to-mask measure, times `share`.
double mask_weight(double mask, const Span24MaskTables& tables, unsigned b, double share = 1.0) {
  return share * tables.bark_width[b] / (kSsfSamples * mask);
}

double mask_at(const Span24Masks& masks, unsigned ssf, unsigned c, unsigned b) {
  return masks.mask[c][ssf * kBands + b];
}

// The synthesis filter spreads part of a subsubframe's coding noise into the
// subsubframe before it, so after a quiet one an attack's own mask does not
// cover all of its noise: what covers it is the lower of that mask and the
// quiet one's over the share that leaks back.
double exposed_mask(const Span24Masks& masks, unsigned ssf, unsigned c, unsigned b) {
  const double own = mask_at(masks, ssf, c, b);
  return ssf == 0 ? own : std::min(own, mask_at(masks, ssf - 1, c, b) / kLeakBack);
}

// Before an attack a band's subband samples hold the analysis filter's
// pre-ringing of it: small, but coded as coarsely as its size allows, the
// synthesis no longer cancels it and noise sounds before the attack, over
// nothing that masks it (pre-echo). The model weighs error there by the
// pre-ringing's own level; it is made to cost at least what the attack's
// does.
//
// An attack at the frame's start has the quiet before it in the frame
// already sent, and its own noise spreads back into that quiet through the
// synthesis filter. Where the band stays loud through the frame (a hit, not
// a click, whose frame has bits to spare anyway), the attack's error is
// weighed 12 dB heavier. The stream's first frame has nothing before it.
void guard_before_attacks(const PsychoAnalysis& psycho, bool first_frame, BandTable& weight,
                          BandTable& mask_weights) {
  for (unsigned ssf = 0; ssf + 1 < kMaxSubframes; ++ssf) {
    for (unsigned at = 0; at < kChannels * kBands; ++at) {
      if (psycho.subframes[ssf + 1][at].energy > kAttackRise * psycho.subframes[ssf][at].energy)
        weight[ssf][at] = std::max(weight[ssf][at], weight[ssf + 1][at]);
    }
  }
  if (first_frame) return;
  for (unsigned at = 0; at < kChannels * kBands; ++at) {
    const PsychoBandRecord& first = psycho.subframes[0][at];
    if (first.attack < kOnset) continue;
    bool sustained = true;
    for (unsigned ssf = 1; ssf < kMaxSubframes; ++ssf)
      sustained = sustained && psycho.subframes[ssf][at].energy >= kSustained * first.energy;
    if (!sustained) continue;
    weight[0][at] *= kFrameStartAttackWeight;
    mask_weights[0][at] *= kFrameStartAttackWeight;
  }
}

FrameWeights frame_weights(const PsychoAnalysis& psycho, const Span24MaskTables& tables, Span24Objective kind,
                           bool first_frame) {
  FrameWeights w{};
  Span24Masks masks;
  if (kind == Span24Objective::noise_to_mask || kind == Span24Objective::weighted_and_mask)
    masks = span24_masks(psycho, kChannels, tables);
  // The mask term's share: the two measures put side by side by what each
  // stakes on the frame (its weights times the band energies). The mask
  // term's stake counts its masks as pre-echo leaves them, so in a frame
  // with an attack over quiet it takes a smaller share and the weighted
  // error, whose guards protect the quiet, leads.
  double mask_share = 0.0;
  if (kind == Span24Objective::weighted_and_mask) {
    double weighted = 0.0, masked = 0.0;
    for (unsigned ssf = 0; ssf < kMaxSubframes; ++ssf)
      for (unsigned c = 0; c < kChannels; ++c)
        for (unsigned b = 0; b < kBands; ++b) {
          const PsychoBandRecord& r = psycho.subframes[ssf][c * kBands + b];
          weighted += r.weight * r.energy;
          masked += mask_weight(exposed_mask(masks, ssf, c, b), tables, b) * r.energy;
        }
    mask_share = masked > 0.0 ? kMaskStake * (weighted / masked) : 0.0;
  }
  for (unsigned ssf = 0; ssf < kMaxSubframes; ++ssf) {
    for (unsigned c = 0; c < kChannels; ++c) {
      for (unsigned b = 0; b < kBands; ++b) {
        double& v = w.weight[ssf][c * kBands + b];
        const double weight = psycho.subframes[ssf][c * kBands + b].weight;
        switch (kind) {
          case Span24Objective::weighted_error:
            v = weight;
            break;
          case Span24Objective::noise_to_mask:
            v = mask_weight(mask_at(masks, ssf, c, b), tables, b);
            break;
          case Span24Objective::log_error:
            w.log_floor[ssf][c * kBands + b] = kSsfSamples * tables.quiet[b];
            break;
          case Span24Objective::weighted_and_mask:
            v = weight;
            w.mask_weight[ssf][c * kBands + b] = mask_weight(mask_at(masks, ssf, c, b), tables, b, mask_share);
            w.mask_floor[ssf][c * kBands + b] = kMaskDepth * kSsfSamples * mask_at(masks, ssf, c, b);
            break;
        }
      }
    }
  }
  if (kind == Span24Objective::weighted_and_mask) guard_before_attacks(psycho, first_frame, w.weight, w.mask_weight);
  return w;
}

std::vector<Unit> make_units(const Layout& layout, const std::vector<const double*>& channels,
                             const FrameWeights& weights, const Span24Settings& settings) {
  std::vector<Unit> units;
  units.reserve(layout.subframes * kChannels * kBands);
  const QuantErrorFn error8 = qmf_kernel().quantization_error8;
  unsigned first_ssf = 0;
  for (unsigned sub = 0; sub < layout.subframes; first_ssf += layout.ssc[sub++]) {
    for (unsigned c = 0; c < kChannels; ++c) {
      for (unsigned b = 0; b < kBands; ++b) {
        Unit u;
        u.sub = sub;
        u.channel = c;
        u.band = b;
        u.ssc = layout.ssc[sub];
        u.count = u.ssc * kSsfSamples;
        u.first_ssf = first_ssf;
        u.error8 = error8;
        for (unsigned i = 0; i < u.count; ++i) {
          const double v = channels[c][(u.first_ssf * kSsfSamples + i) * kBands + b];
          u.x[i] = v == v ? v : 0.0;
        }
        if (u.ssc > 1 && settings.transient_modes) u.tmode = choose_tmode(u);
        for (unsigned i = 0; i < u.count; ++i) {
          const unsigned part = u.tmode > 0 && i / kSsfSamples >= u.tmode ? 1 : 0;
          u.peak[part] = std::max(u.peak[part], std::abs(u.x[i]));
        }
        u.part_end = {u.tmode > 0 ? u.tmode * kSsfSamples : u.count, u.count};
        u.part_start = {0, u.part_end[0]};
        if (u.tmode == 0) u.peak[1] = u.peak[0];
        for (unsigned j = 0; j < u.ssc; ++j) {
          const unsigned at = c * kBands + b, ssf = u.first_ssf + j;
          u.weight[j] = weights.weight[ssf][at];
          u.floor[j] = weights.log_floor[ssf][at];
          u.mask_weight[j] = weights.mask_weight[ssf][at];
          u.mask_floor[j] = weights.mask_floor[ssf][at];
        }
        u.value = objective(u, 0, settings.objective);
        u.least = measure(u, {}, settings.objective);
        units.push_back(u);
      }
    }
  }
  return units;
}

// The THUFF book that codes a channel's TMODE values of coded bands in the
// fewest bits (all bands when `all`).
std::array<unsigned, kChannels> best_tmode_books(const std::vector<Unit>& units, bool all) {
  std::array<unsigned, kChannels> books{};
  for (unsigned c = 0; c < kChannels; ++c) {
    std::uint64_t fewest = std::numeric_limits<std::uint64_t>::max();
    for (unsigned book = 0; book < 4; ++book) {
      std::uint64_t bits = 0;
      for (const Unit& u : units)
        if (u.ssc > 1 && u.channel == c && (all || u.abits > 0)) bits += tmode_code_length(book, u.tmode);
      if (bits < fewest) {
        fewest = bits;
        books[c] = book;
      }
    }
  }
  return books;
}

std::uint64_t spent_bits(const std::vector<Unit>& units, const Budget& budget) {
  std::uint64_t bits = 0;
  for (const Unit& u : units) bits += unit_bits(u, u.abits, budget);
  return bits;
}

// Greedy: always the step that lowers the objective most per bit (the
// lowest unit on a tie), until no step fits what is left. A step priced
// before the budget shrank is re-priced when it comes up. A frame takes a
// thousand steps or more over 128 units, so the best step is kept in a loser
// tree rather than searched for.
void spend(std::vector<Unit>& units, std::uint64_t budget_bits, const Budget& budget,
           const Span24Settings& settings) {
  std::uint64_t remaining = budget_bits - spent_bits(units, budget);
  const auto offer = [&](Unit& u) -> std::uint64_t {
    find_step(u, remaining, budget, settings);
    return u.next == 0 ? 0 : LoserTree::key_of(u.gain);
  };
  std::vector<std::uint64_t> keys(units.size());
  for (std::size_t i = 0; i < units.size(); ++i) keys[i] = offer(units[i]);
  LoserTree tree;
  tree.build(keys);
  while (tree.node[0].key != 0) {
    Unit& u = units[tree.node[0].band];
    if (u.step_bits <= remaining) {
      u.abits = u.next;
      u.value = u.next_value;
      remaining -= u.step_bits;
    }
    tree.replay(offer(u));
  }
}

// ---- The frame --------------------------------------------------------------

void code_unit(const Unit& u, Subframe& s) {
  const unsigned c = u.channel, b = u.band;
  s.abits[c][b] = static_cast<std::uint8_t>(u.abits);
  if (u.predicted) {
    s.pmode[c][b] = 1;
    s.pvq[c][b] = u.predicted->pvq;
    s.scale[c][b] = u.predicted->choice.scale_index;
    for (unsigned i = 0; i < u.count; ++i)
      s.audio[c][((i / kSsfSamples) * kBands + b) * kSsfSamples + i % kSsfSamples] = u.predicted->q[i];
    return;
  }
  const QuantizerChoice first = part_quantizer(u, 0, u.abits);
  const QuantizerChoice second = u.tmode > 0 ? part_quantizer(u, 1, u.abits) : first;
  s.scale[c][b] = first.scale_index;
  if (u.tmode > 0) {
    s.tmode[c][b] = static_cast<std::uint8_t>(u.tmode);
    s.scale2[c][b] = second.scale_index;
  }
  for (unsigned i = 0; i < u.count; ++i) {
    const unsigned j = i / kSsfSamples;
    const QuantizerChoice& q = u.tmode > 0 && j >= u.tmode ? second : first;
    s.audio[c][(j * kBands + b) * kSsfSamples + i % kSsfSamples] = quantize_index(u.x[i], q);
  }
}

FramePayload payload_from_units(const Layout& layout, const std::vector<Unit>& units,
                                const std::array<unsigned, kChannels>& thuff) {
  FramePayload p = blank_payload(layout);
  for (unsigned c = 0; c < kChannels; ++c) p.header.thuff[c] = static_cast<std::uint8_t>(thuff[c]);
  for (const Unit& u : units)
    if (u.abits > 0) code_unit(u, p.subframes[u.sub]);
  return p;
}


struct FrameInputs {
  const std::vector<const double*>& channels;
  FrameWeights weights;
  const Span24Settings& settings;
};

struct Allocation {
  unsigned layout = kSpanLayout;
  std::vector<Unit> units;
  Budget prices;
  double objective = 0.0;  // what the frame's error measure comes to
};

// The frame's units in one layout, nothing spent yet.
Allocation layout_units(unsigned layout, const FrameInputs& in) {
  Allocation a{layout, make_units(kLayouts[layout], in.channels, in.weights, in.settings),
               Budget{&span24_costs(layout), {}}, 0.0};
  for (const Unit& u : a.units) a.objective += u.value;
  return a;
}

// Spends the frame's bits, `payload_bits` being what the header leaves.
void allocate(Allocation& a, const Span24Settings& settings, std::uint64_t payload_bits) {
  const std::uint64_t audio_bits = payload_bits - a.prices.costs->side_bits;
  a.prices.thuff = best_tmode_books(a.units, true);
  spend(a.units, audio_bits, a.prices, settings);
  // Only coded bands send a TMODE code: a cheaper book may now fit, and the
  // bits it frees are spent too.
  const auto books = best_tmode_books(a.units, false);
  if (books != a.prices.thuff) {
    a.prices.thuff = books;
    spend(a.units, audio_bits, a.prices, settings);
  }
  a.objective = 0.0;
  for (const Unit& u : a.units) a.objective += u.value;
}

// Whether subframes of 8 may beat the 24 + 8 layout: when what is at stake
// in one subsubframe (its error measure with nothing coded) is 3 dB or more
// above another's, which an attack, a sound that stops, or the model's
// weights changing after an attack all bring. The stakes of a decibel
// measure are not powers, and a noise-to-mask measure divides the energy
// out again (its masks follow the energy), so for those the energy alone
// counts.
bool worth_splitting(const std::vector<Unit>& units, const PsychoAnalysis& psycho, Span24Objective kind) {
  std::array<double, 4> stake{};
  for (const Unit& u : units) {
    for (unsigned j = 0; j < u.ssc; ++j) {
      const double energy = psycho.subframes[u.first_ssf + j][u.channel * kBands + u.band].energy;
      const bool by_weight = kind == Span24Objective::weighted_error || kind == Span24Objective::weighted_and_mask;
      stake[u.first_ssf + j] += by_weight ? u.weight[j] * energy : energy;
    }
  }
  const auto [lowest, highest] = std::minmax_element(stake.begin(), stake.end());
  return *highest > kSplitStakeRatio * *lowest;
}

// ---- Prediction -------------------------------------------------------------

Unit& unit_of(std::vector<Unit>& units, unsigned sub, unsigned channel, unsigned band) {
  return units[(sub * kChannels + channel) * kBands + band];
}

// What decoders reconstruct of a unit, pushed onto `history`; a direct
// unit is quantized again for it.
void reconstruct_unit(const Unit& u, AdpcmHistory& history) {
  if (u.predicted) {
    for (unsigned i = 0; i < u.count; ++i) push_history(history, u.predicted->y[i]);
    return;
  }
  const unsigned parts = u.tmode > 0 ? 2 : 1;
  for (unsigned part = 0; part < parts; ++part) {
    const QuantizerChoice q = u.abits == 0 ? QuantizerChoice{} : part_quantizer(u, part, u.abits);
    std::array<std::int32_t, kMaxSpan> index{};
    for (unsigned i = u.part_start[part]; i < u.part_end[part]; ++i) index[i] = quantize_index(u.x[i], q);
    reconstruct_direct(index.data() + u.part_start[part], u.part_end[part] - u.part_start[part], q, history);
  }
}

// Whether a band is worth the predictor search: its best two-tap predictor
// (by the Levinson recursion on its n samples, with the two before x[0] as
// history) must remove at least half its power. Bands short of
// that almost never save bits with the four-tap table either (a few in ten
// thousand on programme material), and the search is a sixth of the
// encoding time.
bool may_predict(const double* x, unsigned n) {
  double r0 = 0.0, r1 = 0.0, r2 = 0.0;
  for (const double* p = x; p != x + n; ++p) {
    r0 += p[0] * p[0];
    r1 += p[0] * p[-1];
    r2 += p[0] * p[-2];
  }
  if (!(r0 > 0.0)) return false;
  const double k1 = std::clamp(r1 / r0, -1.0, 1.0);
  const double left = r0 * (1.0 - k1 * k1);
  const double k2 = left > 0.0 ? std::clamp((r2 - k1 * r1) / left, -1.0, 1.0) : 0.0;
  return (1.0 - k1 * k1) * (1.0 - k2 * k2) <= kPredictableResidual;
}

// The fewest ABITS at which the unit, predicted from `history`, is coded
// at least as well as directly at its ABITS now, when that saves bits.
bool try_prediction(Unit& u, const AdpcmHistory& history, const Budget& budget, const Span24Config& config,
                    Span24State& state) {
  double span[4 + kMaxSpan];
  for (unsigned k = 0; k < 4; ++k) span[k] = history[3 - k];
  std::copy(u.x.begin(), u.x.begin() + u.count, span + 4);
  if (!may_predict(span + 4, u.count)) return false;
  const PredictionDecision d =
      decide_prediction_cached(span, 4 + u.count, config.prediction.predictor, config.prediction.shortlist,
                               state.decisions[u.channel * kBands + u.band], state.scan,
                               state.frames % config.prediction.rescan_every != 0);
  if (d.pmode != 1) return false;
  // The error falls as ABITS rises, closely enough for a binary search
  // between the fewest ABITS and the most that still save bits.
  const std::uint32_t direct_bits = unit_bits(u, u.abits, budget);
  const std::uint32_t fixed = split_bits(u, budget) + budget.costs->predictor_bits;
  unsigned high = u.abits;
  while (high > 0 && budget.costs->band_bits[u.sub][high] + fixed >= direct_bits) --high;
  std::optional<Span24PredictedBand> best;
  double best_value = 0.0;
  unsigned best_abits = 0, low = 1;
  while (low <= high) {
    const unsigned a = (low + high) / 2;
    std::optional<Span24PredictedBand> coded = code_span_predicted(u.x.data(), u.count, a, d.pvq, history);
    const double v = coded ? measure(u, coded->error, config.settings.objective) : u.value + 1.0;
    if (coded && v <= u.value) {
      best = std::move(coded);
      best_value = v;
      best_abits = a;
      high = a - 1;
    } else {
      low = a + 1;
    }
  }
  if (!best) return false;
  u.predicted = std::move(best);
  u.abits = best_abits;
  u.value = best_value;
  return true;
}

// Bands, each in time order through the frame, switch to prediction where
// that codes them as well in fewer bits; a band that does is settled, and
// the bits saved are spent again on the others. Returns the bits spent
// again. Without history (HFLAG 0) the decoders do not agree on how
// prediction starts, so none is used.
std::uint64_t predict_bands(Allocation& a, bool use_history, const Span24Config& config, Span24State& state,
                            std::uint64_t audio_bits, std::uint64_t& predictions) {
  if (!use_history || !config.prediction.enabled) return 0;
  const Layout& layout = kLayouts[a.layout];
  for (unsigned c = 0; c < kChannels; ++c) {
    for (unsigned b = 0; b < kBands; ++b) {
      AdpcmHistory history = state.history[c * kBands + b];
      bool predicted = false;
      for (unsigned sub = 0; sub < layout.subframes; ++sub) {
        Unit& u = unit_of(a.units, sub, c, b);
        if (u.abits > 0 && u.tmode == 0 && try_prediction(u, history, a.prices, config, state)) {
          predicted = true;
          ++predictions;
        }
        if (sub + 1 < layout.subframes) reconstruct_unit(u, history);
      }
      if (predicted)
        for (unsigned sub = 0; sub < layout.subframes; ++sub) unit_of(a.units, sub, c, b).settled = true;
    }
  }
  const std::uint64_t before = spent_bits(a.units, a.prices);
  spend(a.units, audio_bits, a.prices, config.settings);
  return spent_bits(a.units, a.prices) - before;
}

// Brings each band's history to the frame's end from what the payload
// sends, from silence when the frame has no history (HFLAG 0).
void update_history(const FramePayload& payload, const std::vector<Unit>& units, bool use_history,
                    Span24State& state) {
  for (unsigned c = 0; c < kChannels; ++c) {
    for (unsigned b = 0; b < kBands; ++b) {
      AdpcmHistory& history = state.history[c * kBands + b];
      if (!use_history) history = {};
      for (unsigned sub = 0; sub < payload.subframes.size(); ++sub) {
        const Unit& u = units[(sub * kChannels + c) * kBands + b];
        if (u.predicted) {
          reconstruct_unit(u, history);
          continue;
        }
        const Subframe& s = payload.subframes[sub];
        for (unsigned j = 0; j < s.ssc; ++j) {
          const unsigned scale = s.tmode[c][b] != 0 && j >= s.tmode[c][b] ? s.scale2[c][b] : s.scale[c][b];
          const QuantizerChoice q = s.abits[c][b] == 0 ? QuantizerChoice{}
                                                      : quantizer_choice(s.abits[c][b], kScaleFactor6.data() + scale);
          reconstruct_direct(&s.audio[c][(j * kBands + b) * kSsfSamples], kSsfSamples, q, history);
        }
      }
    }
  }
  state.history_valid = true;
  ++state.frames;
}

}  // namespace

// Measured on the test signals, the weighted error with the mask term,
// transient modes and a jump search of four steps gives the best
// noise-to-mask ratios at every bit rate.
Span24Settings production_span24_settings() { return {Span24Objective::weighted_and_mask, true, kJumpReach}; }

Span24Settings span24_settings(const std::string& mode, std::uint8_t scale, bool transient_mode) {
  if (mode == "candidate" || mode == "candidate-jump") {
    Span24Settings s = production_span24_settings();
    if (mode == "candidate-jump") s.jump_reach = kWideJumpReach;
    return s;
  }
  Span24Settings s;
  s.objective = scale == 1   ? Span24Objective::log_error
                : scale == 2 ? Span24Objective::noise_to_mask
                             : Span24Objective::weighted_error;
  s.transient_modes = transient_mode;
  s.jump_reach = mode == "absolute-jump" ? kJumpReach : 1;
  return s;
}

Span24Frame encode_span24_frame(const std::vector<const double*>& channels, std::uint8_t amode,
                                const StreamParams& stream, std::uint32_t frame_bytes, const Span24Config& config,
                                Span24State& state) {
  if (channels.size() != kChannels || channels_for_amode(amode) != kChannels) {
    throw std::invalid_argument("AMODE primary-channel count mismatch");
  }
  Span24Frame out;
  CoreFrame& frame = out.frame;
  CoreFrameHeader& header = frame.header;
  set_encoder_header(header, amode, stream.sample_rate, stream.bitrate, frame_bytes);
  const bool use_history = state.history_valid;
  header.hflag = use_history ? 1 : 0;

  BitWriter writer(frame_bytes);
  write_header(writer, header);
  const std::uint64_t header_bits = writer.bit_count();
  const std::uint64_t budget = static_cast<std::uint64_t>(frame_bytes & 0xFFFFu) * 8;
  if (budget <= header_bits + config.reserved_bits + span24_costs(kSpanLayout).side_bits) {
    throw std::invalid_argument("frame too small for span24 DTS Core frame");
  }
  const std::uint64_t payload_budget = budget - header_bits - config.reserved_bits;

  const PsychoAnalysis psycho = analyse_psycho(channels, &state.psycho, config.psycho);
  if (!state.mask_tables) state.mask_tables = span24_mask_tables(stream.sample_rate);
  const bool first_frame = state.frames == 0;
  const FrameInputs inputs{channels, frame_weights(psycho, *state.mask_tables, config.settings.objective, first_frame),
                           config.settings};
  Allocation best = layout_units(kSpanLayout, inputs);
  allocate(best, config.settings, payload_budget);
  if (span24_costs(kShortLayout).side_bits < payload_budget && worth_splitting(best.units, psycho, config.settings.objective)) {
    Allocation eights = layout_units(kShortLayout, inputs);
    allocate(eights, config.settings, payload_budget);
    if (eights.objective < best.objective) best = std::move(eights);
  }

  const Span24Costs& costs = span24_costs(best.layout);
  out.reinvested_bits =
      predict_bands(best, use_history, config, state, payload_budget - costs.side_bits, out.predictions);
  frame.payload = payload_from_units(kLayouts[best.layout], best.units, best.prices.thuff);
  update_history(frame.payload, best.units, use_history, state);
  write_payload(writer, frame.payload);
  if (writer.bit_count() - header_bits != costs.side_bits + spent_bits(best.units, best.prices)) {
    throw std::runtime_error("span24 payload accounting mismatch");
  }
  finish_frame(frame, writer, frame_bytes, FrameKind::stereo);
  return out;
}

}  // namespace tavrin
