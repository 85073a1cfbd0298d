#include "bitstream/primary_header.h"

#include <stdexcept>

#include "bitstream/bit_writer.h"

namespace tavrin {

namespace {

constexpr std::size_t kSelCount = 10;

// Largest selector per ABITS 1..10; a selector at its maximum has no
// adjustment field.
constexpr std::uint8_t sel_max(std::size_t entry) { return entry == 0 ? 1 : (entry <= 4 ? 3 : 7); }
constexpr unsigned sel_width(std::size_t entry) { return entry == 0 ? 1 : (entry <= 4 ? 2 : 3); }

}  // namespace

void validate_primary_header(const PrimaryHeader& h, unsigned channels) {
  if (channels < 1 || channels > 5) throw std::invalid_argument("DTS core primary channels must be 1..5");
  if (h.subfs == 0 || h.subfs > 16) throw std::invalid_argument("SUBFS out of range");
  const std::size_t sizes[] = {h.subs.size(),  h.vqsub.size(), h.joinx.size(), h.thuff.size(),
                               h.shuff.size(), h.bhuff.size(), h.sel.size()};
  for (std::size_t n : sizes)
    if (n != channels) throw std::invalid_argument("primary header channel vector size mismatch");
  for (unsigned c = 0; c < channels; ++c) {
    if (h.subs[c] < 2 || h.subs[c] > 32) throw std::invalid_argument("SUBS out of range");
    if (h.vqsub[c] < 1 || h.vqsub[c] > 32) throw std::invalid_argument("VQSUB out of range");
    if (h.joinx[c] > 7 || h.thuff[c] > 3 || h.shuff[c] > 6 || h.bhuff[c] > 6)
      throw std::invalid_argument("primary header selector out of range");
    const auto& sel = h.sel[c];
    if (sel.size() != kSelCount) throw std::invalid_argument("SEL vector must contain ABITS 1..10");
    if (sel[0] > 1) throw std::invalid_argument("SEL ABITS=1 out of range");
    for (std::size_t e = 1; e <= 4; ++e)
      if (sel[e] > 3) throw std::invalid_argument("SEL ABITS=2..5 out of range");
    for (std::size_t e = 5; e < kSelCount; ++e)
      if (sel[e] > 7) throw std::invalid_argument("SEL ABITS=6..10 out of range");
  }
}

void write_primary_header(BitWriter& w, const PrimaryHeader& h, bool want_ahcrc) {
  const auto channels = static_cast<unsigned>(h.subs.size());
  validate_primary_header(h, channels);
  w.write(h.subfs - 1u, 4);
  w.write(channels - 1u, 3);
  for (unsigned c = 0; c < channels; ++c) w.write(h.subs[c] - 2u, 5);
  for (unsigned c = 0; c < channels; ++c) w.write(h.vqsub[c] - 1u, 5);
  for (unsigned c = 0; c < channels; ++c) w.write(h.joinx[c], 3);
  for (unsigned c = 0; c < channels; ++c) w.write(h.thuff[c], 2);
  for (unsigned c = 0; c < channels; ++c) w.write(h.shuff[c], 3);
  for (unsigned c = 0; c < channels; ++c) w.write(h.bhuff[c], 3);
  // Selectors and adjustments run ABITS-major, channel-minor.
  for (std::size_t e = 0; e < kSelCount; ++e)
    for (unsigned c = 0; c < channels; ++c) w.write(h.sel[c][e], sel_width(e));
  for (std::size_t e = 0; e < kSelCount; ++e)
    for (unsigned c = 0; c < channels; ++c)
      if (h.sel[c][e] < sel_max(e)) w.write(0, 2);
  if (want_ahcrc) throw std::invalid_argument("Tavrin-DTS does not generate legacy AHCRC/CPF");
}

}  // namespace tavrin
