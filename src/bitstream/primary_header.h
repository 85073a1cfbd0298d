#pragma once
// Primary audio coding header: subframe count, per-channel subband counts
// and the code book selectors.
#include <cstdint>
#include <vector>

namespace tavrin {

struct BitWriter;

// One entry per primary channel in coding order; the channel count is the
// length of `subs`.
struct PrimaryHeader {
  std::uint8_t subfs = 1;                 // SUBFS, 1..16
  std::vector<std::uint8_t> subs;         // 2..32
  std::vector<std::uint8_t> vqsub;        // 1..32
  std::vector<std::uint8_t> joinx;        // 0..7
  std::vector<std::uint8_t> thuff;        // 0..3
  std::vector<std::uint8_t> shuff;        // 0..6
  std::vector<std::uint8_t> bhuff;        // 0..6
  std::vector<std::vector<std::uint8_t>> sel;  // ten selectors, entry n for ABITS n + 1
};

// std::invalid_argument with the first rule broken.
void validate_primary_header(const PrimaryHeader& header, unsigned channels);

// Validates against its own channel count, then writes the fields and the
// (always zero) scale adjustments. `want_ahcrc` must be false: the
// header CRC is never produced.
void write_primary_header(BitWriter& writer, const PrimaryHeader& header, bool want_ahcrc);

}  // namespace tavrin
