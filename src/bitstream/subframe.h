#pragma once
// Subframes: side information, LFE samples, coded audio and DSYNC, in the
// restricted "Phase-3 baseline" profile (linear ABITS and scale codes, no
// joint intensity, no partial subsubframes, ABITS 8..26 audio). A payload
// may also carry ABITS 1..7 as block codes, which the project's own
// encoders use.
#include <cstdint>
#include <vector>

#include "bitstream/primary_header.h"

namespace tavrin {

struct BitWriter;

// Per-channel lists are indexed by primary channel in coding order; PMODE
// and PVQ hold SUBS entries, ABITS/TMODE/SCALE/SCALE2 hold VQSUB entries and
// AUDIO holds SSC * VQSUB * 8 samples: per subsubframe, per subband, its 8
// samples (subsubframe j, band b, sample k at (j * VQSUB + b) * 8 + k).
struct Subframe {
  std::uint8_t ssc = 1;  // subsubframes, 1..4
  std::uint8_t psc = 0;  // must be 0
  std::vector<std::vector<std::uint8_t>> pmode;
  std::vector<std::vector<std::uint16_t>> pvq;
  std::vector<std::vector<std::uint8_t>> abits;
  std::vector<std::vector<std::uint8_t>> tmode;
  std::vector<std::vector<std::uint8_t>> scale;
  std::vector<std::vector<std::uint8_t>> scale2;
  std::vector<std::int8_t> lfe;  // SSC * LFF * 2 samples when LFF is non-zero
  std::uint8_t lfe_scale = 0;    // 7-bit table index
  std::vector<std::vector<std::int32_t>> audio;
};

struct FramePayload {
  PrimaryHeader header;
  std::vector<Subframe> subframes;
  std::uint8_t lff = 0;
  // ABITS 1..7 allowed, coded as block codes (their selectors must be the
  // all-ones "no Huffman" values, as the plan-driven header sets them).
  bool block_codes = false;
};

// A subframe of `ssc` subsubframes for `channels` channels of `bands`
// subbands, every list sized and all zero: every band silent, no
// prediction.
Subframe blank_subframe(unsigned channels, unsigned bands, unsigned ssc = 1);

// Block codes: four samples of a band with L levels (indices -(L-1)/2 ..
// (L-1)/2) packed into one word, the first sample the least significant
// digit. ABITS 1..7 have L = 3, 5, 7, 9, 13, 17, 25.
struct BlockCodeFormat {
  unsigned levels = 0;
  unsigned width = 0;  // bits of one word
};
// "block code ABITS must be 1..7"
BlockCodeFormat block_code_format(unsigned abits);
// "block code index out of range" when a sample lies outside the levels.
std::uint32_t block_code_word(const std::int32_t* four, unsigned abits);

// One directly coded (NFE) sample: the index's low ABITS - 3 bits.
// "NFE direct coding requires ABITS 8..26",
// "NFE quantization index out of signed range".
void write_nfe_sample(BitWriter& writer, std::int32_t index, unsigned abits);
// DSYNC: the 16 one bits that close every subframe.
void write_subframe_sync(BitWriter& writer);

// Transient-mode Huffman code: `length` bits of `code`, MSB first.
struct TmodeCode {
  std::uint32_t code = 0;
  unsigned length = 0;
};
// "DTS TMODE book/value out of range" for book or value above 3.
TmodeCode tmode_code(unsigned book, unsigned value);
unsigned tmode_code_length(unsigned book, unsigned value);

// std::invalid_argument with the first rule broken. The primary header is
// checked first so that its lists can be indexed safely.
void validate_subframe(const Subframe& subframe, const PrimaryHeader& header, unsigned channels);
// Validates, then writes SSC, PSC, PMODE, PVQ, ABITS, TMODE and scales.
void write_side_info(BitWriter& writer, const Subframe& subframe, const PrimaryHeader& header, unsigned channels);
// LFE samples and scale of one subframe for the frame's LFF.
void write_lfe(BitWriter& writer, const Subframe& subframe, unsigned lff);
// Bits write_lfe emits for this subframe (throws as it would).
std::uint64_t lfe_bit_count(const Subframe& subframe, unsigned lff);
// Quantized samples of every subband with ABITS non-zero.
void write_audio(BitWriter& writer, const Subframe& subframe, const PrimaryHeader& header, unsigned channels);

// Primary header, then per subframe: side information, LFE, audio, DSYNC.
void write_payload(BitWriter& writer, const FramePayload& payload);
// Bits that write_payload emits for this payload (throws as it would).
std::uint64_t payload_bit_count(const FramePayload& payload);

}  // namespace tavrin
