#include "alloc/span24_encoder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "alloc/plan_payload.h"
#include "bitstream/bit_writer.h"
#include "bitstream/frame_header.h"
#include "dsp/quantizer.h"

namespace tavrin {

namespace {

constexpr unsigned kBands = 32;
constexpr unsigned kChannels = 2;
constexpr unsigned kMaxAbits = 26;
constexpr unsigned kSsfSamples = 8;
constexpr unsigned kFirstSsc = 3;  // subframe 0: 24 samples per band; subframe 1: the last 8
constexpr unsigned kJumpReach = 4;
constexpr unsigned kWideJumpReach = 8;
constexpr unsigned kFlatTmodeBook = 3;  // every TMODE value in 2 bits

// ---- What the payload costs, counted by the payload writer ------------------

FramePayload blank_payload() {
  FramePayload p;
  p.header = legacy_primary_header(kChannels);
  p.header.subfs = 2;
  p.block_codes = true;
  p.subframes = {blank_subframe(kChannels, kBands, kFirstSsc), blank_subframe(kChannels, kBands, 1)};
  return p;
}

struct Span24Costs {
  std::uint64_t side_bits = 0;  // primary header and both subframes with every band silent
  // [subframe][abits]: one band's audio and first scale factor, without its
  // TMODE code.
  std::array<std::array<std::uint32_t, kMaxAbits + 1>, 2> band_bits{};
  std::uint32_t second_scale_bits = 0;
};

Span24Costs measure_costs() {
  Span24Costs costs;
  FramePayload blank = blank_payload();
  blank.header.thuff.assign(kChannels, kFlatTmodeBook);
  costs.side_bits = payload_bit_count(blank);
  for (unsigned s = 0; s < 2; ++s) {
    for (unsigned a = 1; a <= kMaxAbits; ++a) {
      FramePayload one = blank;
      one.subframes[s].abits[0][0] = static_cast<std::uint8_t>(a);
      const std::uint64_t tmode_bits = s == 0 ? tmode_code_length(kFlatTmodeBook, 0) : 0;
      costs.band_bits[s][a] = static_cast<std::uint32_t>(payload_bit_count(one) - costs.side_bits - tmode_bits);
    }
  }
  FramePayload split = blank;
  split.subframes[0].abits[0][0] = 8;
  split.subframes[0].tmode[0][0] = 1;
  costs.second_scale_bits = static_cast<std::uint32_t>(payload_bit_count(split) - costs.side_bits -
                                                       tmode_code_length(kFlatTmodeBook, 1) - costs.band_bits[0][8]);
  return costs;
}

const Span24Costs& span24_costs() {
  static const Span24Costs costs = measure_costs();
  return costs;
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
  unsigned count = 0;      // samples: 24 or 8
  unsigned first_ssf = 0;  // the frame's subsubframe of sample 0
  unsigned tmode = 0;      // first subsubframe of the second scale (0: one scale)
  std::array<double, 24> x{};
  std::array<double, 2> peak{};        // largest magnitude before the split and from it on
  std::array<unsigned, 2> part_start{};  // first sample of each part
  std::array<unsigned, 2> part_end{};
  std::array<double, 3> weight{};      // per subsubframe: what a unit of squared error costs
  std::array<double, 3> floor{};       // per subsubframe: the log measure's floor
  unsigned abits = 0;
  double value = 0.0;  // the objective at abits
  // The objective at each ABITS once measured; NaN until then.
  std::array<double, kMaxAbits + 1> known = filled_with_nan();
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
};

// The scale at which the part's peak just fits is not always the one with
// the least error: a step smaller clips the peak a little but quantizes the
// rest finer. Trying both keeps the error falling as ABITS rises, which the
// step-by-step search relies on. Both are measured in one pass.
PartCode code_part(const Unit& u, unsigned part, unsigned abits) {
  PartCode fit{quantizer_at(u.peak[part], abits)};
  if (fit.choice.scale_index == 0) {
    for (unsigned i = u.part_start[part]; i < u.part_end[part]; ++i) {
      const double d = u.x[i] - quantize_index(u.x[i], fit.choice) * fit.choice.quantum;
      fit.error[i / kSsfSamples] += d * d;
    }
    return fit;
  }
  PartCode finer{quantizer_choice(abits, kScaleFactor6.data() + fit.choice.scale_index - 1)};
  double fit_total = 0.0, finer_total = 0.0;
  for (unsigned i = u.part_start[part]; i < u.part_end[part]; ++i) {
    const double a = u.x[i] - quantize_index(u.x[i], fit.choice) * fit.choice.quantum;
    const double b = u.x[i] - quantize_index(u.x[i], finer.choice) * finer.choice.quantum;
    fit_total += a * a;
    finer_total += b * b;
    fit.error[i / kSsfSamples] += a * a;
    finer.error[i / kSsfSamples] += b * b;
  }
  return finer_total < fit_total ? finer : fit;
}

QuantizerChoice part_quantizer(const Unit& u, unsigned part, unsigned abits) {
  return code_part(u, part, abits).choice;
}

// Squared error of each subsubframe at ABITS a (a = 0: the signal itself).
std::array<double, 3> errors_at(const Unit& u, unsigned a) {
  std::array<double, 3> e{};
  if (a == 0) {
    for (unsigned i = 0; i < u.count; ++i) e[i / kSsfSamples] += u.x[i] * u.x[i];
    return e;
  }
  const unsigned parts = u.tmode > 0 ? 2 : 1;
  for (unsigned part = 0; part < parts; ++part) {
    const PartCode coded = code_part(u, part, a);
    for (unsigned j = 0; j < 3; ++j) e[j] += coded.error[j];
  }
  return e;
}

// The objective at ABITS a; each ABITS is measured once per unit, however
// often the search comes back to it.
double objective(Unit& u, unsigned a, Span24Objective kind) {
  if (u.known[a] == u.known[a]) return u.known[a];
  const std::array<double, 3> e = errors_at(u, a);
  double v = 0.0;
  for (unsigned j = 0; j < u.count / kSsfSamples; ++j) {
    v += kind == Span24Objective::log_error ? 10.0 * std::log10(e[j] + u.floor[j]) : u.weight[j] * e[j];
  }
  u.known[a] = v;
  return v;
}

struct Budget {
  const Span24Costs& costs;
  std::array<unsigned, kChannels> thuff{};
};

std::uint32_t unit_bits(const Unit& u, unsigned a, const Budget& b) {
  if (a == 0) return 0;
  std::uint32_t bits = b.costs.band_bits[u.sub][a];
  if (u.sub == 0) {
    bits += tmode_code_length(b.thuff[u.channel], u.tmode);
    if (u.tmode > 0) bits += b.costs.second_scale_bits;
  }
  return bits;
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
  const std::uint32_t now = unit_bits(u, u.abits, budget);
  const unsigned reach = settings.jump_reach;
  for (unsigned a = u.abits + 1; a <= kMaxAbits; ++a) {
    if (a > u.abits + reach && u.next != 0) break;
    const std::uint32_t bits = unit_bits(u, a, budget) - now;
    if (bits > remaining) break;
    const double v = objective(u, a, settings.objective);
    const double gain = (u.value - v) / bits;
    if (gain > u.gain) {
      u.next = a;
      u.next_value = v;
      u.gain = gain;
      u.step_bits = bits;
    }
  }
}

// TMODE: the split that separates the quiet and the loud part of the 24
// samples best, when they differ by 6 dB or more; the quiet part then
// gets a scale of its own instead of the loud part's noise.
unsigned choose_tmode(const Unit& u) {
  std::array<double, 3> p{};
  for (unsigned i = 0; i < 24; ++i) p[i / kSsfSamples] = std::max(p[i / kSsfSamples], std::abs(u.x[i]));
  unsigned best = 0;
  double best_ratio = 2.0;
  for (unsigned t = 1; t < kFirstSsc; ++t) {
    const double before = t == 1 ? p[0] : std::max(p[0], p[1]);
    const double after = t == 1 ? std::max(p[1], p[2]) : p[2];
    const double ratio = std::max(before, after) / std::max(std::min(before, after), 1e-12);
    if (ratio > best_ratio) {
      best_ratio = ratio;
      best = t;
    }
  }
  return best;
}

std::vector<Unit> make_units(const std::vector<const double*>& channels, const PsychoAnalysis& psycho,
                             const Span24Masks& masks, const Span24MaskTables& tables,
                             const Span24Settings& settings) {
  std::vector<Unit> units;
  units.reserve(2 * kChannels * kBands);
  for (unsigned sub = 0; sub < 2; ++sub) {
    for (unsigned c = 0; c < kChannels; ++c) {
      for (unsigned b = 0; b < kBands; ++b) {
        Unit u;
        u.sub = sub;
        u.channel = c;
        u.band = b;
        u.count = sub == 0 ? 24 : 8;
        u.first_ssf = sub == 0 ? 0 : 3;
        for (unsigned i = 0; i < u.count; ++i) {
          const double v = channels[c][(u.first_ssf * kSsfSamples + i) * kBands + b];
          u.x[i] = v == v ? v : 0.0;
        }
        if (sub == 0 && settings.transient_modes) u.tmode = choose_tmode(u);
        for (unsigned i = 0; i < u.count; ++i) {
          const unsigned part = u.tmode > 0 && i / kSsfSamples >= u.tmode ? 1 : 0;
          u.peak[part] = std::max(u.peak[part], std::abs(u.x[i]));
        }
        u.part_end = {u.tmode > 0 ? u.tmode * kSsfSamples : u.count, u.count};
        u.part_start = {0, u.part_end[0]};
        if (u.tmode == 0) u.peak[1] = u.peak[0];
        const double quiet = tables.quiet[b];
        for (unsigned j = 0; j < u.count / kSsfSamples; ++j) {
          const unsigned ssf = u.first_ssf + j;
          const PsychoBandRecord& r = psycho.subframes[ssf][c * kBands + b];
          switch (settings.objective) {
            case Span24Objective::weighted_error:
              u.weight[j] = r.weight;
              break;
            case Span24Objective::noise_to_mask:
              u.weight[j] = 1.0 / (kSsfSamples * masks.mask[c][ssf * kBands + b]);
              break;
            case Span24Objective::log_error:
              u.floor[j] = kSsfSamples * quiet;
              break;
          }
        }
        u.value = objective(u, 0, settings.objective);
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
        if (u.sub == 0 && u.channel == c && (all || u.abits > 0)) bits += tmode_code_length(book, u.tmode);
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
// before the budget shrank is re-priced when it comes up. The best step is
// kept in a heap rather than searched for: a frame takes a thousand steps or
// more over 128 units. An entry whose unit has moved on since is skipped.
struct StepEntry {
  double gain = 0.0;
  std::uint32_t unit = 0;
  std::uint32_t version = 0;
};

bool comes_later(const StepEntry& a, const StepEntry& b) {
  return a.gain < b.gain || (a.gain == b.gain && a.unit > b.unit);
}

void spend(std::vector<Unit>& units, std::uint64_t budget_bits, const Budget& budget,
           const Span24Settings& settings) {
  std::uint64_t remaining = budget_bits - spent_bits(units, budget);
  std::vector<std::uint32_t> version(units.size(), 0);
  std::vector<StepEntry> heap;
  heap.reserve(units.size() * 2);
  const auto offer = [&](std::uint32_t i) {
    find_step(units[i], remaining, budget, settings);
    ++version[i];
    if (units[i].next == 0) return;
    heap.push_back({units[i].gain, i, version[i]});
    std::push_heap(heap.begin(), heap.end(), comes_later);
  };
  for (std::uint32_t i = 0; i < units.size(); ++i) offer(i);
  while (!heap.empty()) {
    std::pop_heap(heap.begin(), heap.end(), comes_later);
    const StepEntry top = heap.back();
    heap.pop_back();
    if (top.version != version[top.unit]) continue;
    Unit& u = units[top.unit];
    if (u.step_bits <= remaining) {
      u.abits = u.next;
      u.value = u.next_value;
      remaining -= u.step_bits;
    }
    offer(top.unit);
  }
}

// ---- The frame --------------------------------------------------------------

void code_unit(const Unit& u, Subframe& s) {
  const unsigned c = u.channel, b = u.band;
  s.abits[c][b] = static_cast<std::uint8_t>(u.abits);
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

FramePayload payload_from_units(const std::vector<Unit>& units, const std::array<unsigned, kChannels>& thuff) {
  FramePayload p = blank_payload();
  for (unsigned c = 0; c < kChannels; ++c) p.header.thuff[c] = static_cast<std::uint8_t>(thuff[c]);
  for (const Unit& u : units)
    if (u.abits > 0) code_unit(u, p.subframes[u.sub]);
  return p;
}

}  // namespace

// Measured on programme material, the weighted error with transient modes
// and a jump search of four steps gives the best noise-to-mask ratios at
// every bit rate.
Span24Settings production_span24_settings() { return {Span24Objective::weighted_error, true, kJumpReach}; }

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
  header.hflag = 0;  // no band is predicted, so no history is needed

  BitWriter writer(frame_bytes);
  write_header(writer, header);
  const std::uint64_t header_bits = writer.bit_count();
  const std::uint64_t budget = static_cast<std::uint64_t>(frame_bytes & 0xFFFFu) * 8;
  const Span24Costs& costs = span24_costs();
  if (budget <= header_bits + config.reserved_bits + costs.side_bits) {
    throw std::invalid_argument("frame too small for span24 DTS Core frame");
  }
  const std::uint64_t audio_budget = budget - header_bits - config.reserved_bits - costs.side_bits;

  const PsychoAnalysis psycho = analyse_psycho(channels, &state.psycho, config.psycho);
  if (!state.mask_tables) state.mask_tables = span24_mask_tables(stream.sample_rate, config.psycho);
  const Span24Masks masks = span24_masks(psycho, kChannels, *state.mask_tables);
  std::vector<Unit> units = make_units(channels, psycho, masks, *state.mask_tables, config.settings);
  Budget prices{costs, best_tmode_books(units, true)};
  spend(units, audio_budget, prices, config.settings);
  // Only coded bands send a TMODE code: a cheaper book may now fit, and the
  // bits it frees are spent too.
  const auto books = best_tmode_books(units, false);
  if (books != prices.thuff) {
    prices.thuff = books;
    spend(units, audio_budget, prices, config.settings);
  }

  frame.payload = payload_from_units(units, prices.thuff);
  write_payload(writer, frame.payload);
  if (writer.bit_count() - header_bits != costs.side_bits + spent_bits(units, prices)) {
    throw std::runtime_error("span24 payload accounting mismatch");
  }
  finish_frame(frame, writer, frame_bytes, FrameKind::stereo);
  return out;
}

}  // namespace tavrin
