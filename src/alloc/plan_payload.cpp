#include "alloc/plan_payload.h"

#include <stdexcept>

#include "alloc/allocation.h"
#include "dsp/quantizer.h"

namespace tavrin {

namespace {

constexpr unsigned kSubframes = 4;
constexpr unsigned kBands = 32;
constexpr unsigned kSamplesPerSubframe = 8;

FramePayload blank_payload(unsigned channels) {
  FramePayload payload;
  payload.header = legacy_primary_header(channels);
  payload.subframes.assign(kSubframes, blank_subframe(channels, kBands));
  return payload;
}

PayloadCosts measure_payload_costs() {
  PayloadCosts costs;
  for (unsigned c = 1; c <= kMaxPlanChannels; ++c) costs.side_bits[c] = payload_bit_count(blank_payload(c));
  FramePayload one = blank_payload(1);
  for (unsigned a = 8; a <= kMaxPlanAbits; ++a) {
    one.subframes[0].abits[0][0] = static_cast<std::uint8_t>(a);
    costs.band_bits[a] = static_cast<std::uint32_t>(payload_bit_count(one) - costs.side_bits[1]);
  }
  FramePayload predicted = blank_payload(1);
  predicted.subframes[0].pmode[0][0] = 1;
  costs.pvq_bits = static_cast<std::uint32_t>(payload_bit_count(predicted) - costs.side_bits[1]);
  return costs;
}

}  // namespace

const PayloadCosts& payload_costs() {
  static const PayloadCosts costs = measure_payload_costs();
  return costs;
}

PrimaryHeader legacy_primary_header(unsigned channels) {
  PrimaryHeader header;
  header.subfs = kSubframes;
  header.subs.assign(channels, kBands);
  header.vqsub.assign(channels, kBands);
  header.joinx.assign(channels, 0);
  header.thuff.assign(channels, 0);
  header.shuff.assign(channels, 5);  // 6-bit linear scale indexes
  header.bhuff.assign(channels, 6);  // 5-bit linear ABITS
  // Every selector at its largest value: the linear books, and no scale
  // adjustment field is written at all.
  header.sel.assign(channels, std::vector<std::uint8_t>{1, 3, 3, 3, 3, 7, 7, 7, 7, 7});
  return header;
}

FramePayload payload_from_plan(const std::vector<const double*>& channels, const AllocationPlan& plan) {
  const std::size_t count = channels.size();
  if (count < 1 || count > 5) throw std::invalid_argument("DTS adaptive payload requires 1..5 channels");
  if (plan.subframes.size() != kSubframes) {
    throw std::invalid_argument("Phase-7 adaptive payload requires four subframes");
  }
  FramePayload payload;
  payload.header = legacy_primary_header(static_cast<unsigned>(count));
  payload.lff = 0;
  payload.subframes.resize(kSubframes);
  for (unsigned s = 0; s < kSubframes; ++s) {
    const auto& plan_sub = plan.subframes[s];
    if (plan_sub.size() != count) throw std::runtime_error("adaptive allocation channel mismatch");
    Subframe& sub = payload.subframes[s];
    sub = blank_subframe(static_cast<unsigned>(count), kBands);
    for (std::size_t c = 0; c < count; ++c) {
      if (plan_sub[c].size() != kBands) throw std::runtime_error("adaptive allocation band mismatch");
      const double* block = channels[c] + s * kBands * kSamplesPerSubframe;
      for (unsigned b = 0; b < kBands; ++b) {
        const AllocationBand& band = plan_sub[c][b];
        if (band.abits == 0) continue;
        sub.abits[c][b] = band.abits;
        sub.scale[c][b] = band.quantizer.scale_index;
        double x[kSamplesPerSubframe], units[kSamplesPerSubframe];
        for (unsigned k = 0; k < kSamplesPerSubframe; ++k) x[k] = block[k * kBands + b];
        quantized_units_n<kSamplesPerSubframe>(x, band.quantizer, units);
        for (unsigned k = 0; k < kSamplesPerSubframe; ++k)
          sub.audio[c][b * kSamplesPerSubframe + k] = static_cast<std::int32_t>(units[k]);
      }
    }
  }
  return payload;
}

}  // namespace tavrin
