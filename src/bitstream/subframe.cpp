#include "bitstream/subframe.h"

#include <array>
#include <stdexcept>

#include "bitstream/bit_writer.h"

namespace tavrin {

namespace {

constexpr std::array<std::array<TmodeCode, 4>, 4> kTmodeBooks = {{
    {{{0b0, 1}, {0b10, 2}, {0b110, 3}, {0b111, 3}}},
    {{{0b10, 2}, {0b110, 3}, {0b111, 3}, {0b0, 1}}},
    {{{0b110, 3}, {0b111, 3}, {0b0, 1}, {0b10, 2}}},
    {{{0b00, 2}, {0b01, 2}, {0b10, 2}, {0b11, 2}}},
}};

constexpr std::array<BlockCodeFormat, 8> kBlockCodes = {{
    {0, 0}, {3, 7}, {5, 10}, {7, 12}, {9, 13}, {13, 15}, {17, 17}, {25, 19},
}};

void fail(const char* message) { throw std::invalid_argument(message); }

unsigned abits_limit(std::uint8_t bhuff) { return bhuff == 5 ? 15u : 26u; }
unsigned abits_width(std::uint8_t bhuff) { return bhuff == 5 ? 4u : 5u; }
unsigned scale_limit(std::uint8_t shuff) { return shuff == 5 ? 63u : 127u; }
unsigned scale_width(std::uint8_t shuff) { return shuff == 5 ? 6u : 7u; }

// Stands in for the BitWriter when only the length of a payload is wanted:
// the same fields go through the same checks, in the same order, so it
// throws exactly where writing would, but nothing is stored.
struct BitCounter {
  std::uint64_t bits = 0;
  void write(std::uint32_t value, unsigned width) {
    if (width > 32) fail("bit width > 32");
    if (width < 32 && (value >> width) != 0) fail("value does not fit bit width");
    bits += width;
  }
  void write_signed_run(const std::int32_t*, std::size_t count, unsigned width) { bits += count * width; }
};

// The fields of `count` NFE samples (abits already checked to be 8..26),
// each the two's complement of the index truncated to ABITS - 3 bits.
template <class Sink>
void emit_nfe(Sink& w, const std::int32_t* index, std::size_t count, unsigned abits) {
  const std::int32_t half = std::int32_t{1} << (abits - 4);
  for (std::size_t i = 0; i < count; ++i)
    if (index[i] < -half || index[i] >= half) fail("NFE quantization index out of signed range");
  w.write_signed_run(index, count, abits - 3);
}

template <class Sink>
void emit_side_info(Sink& w, const Subframe& s, const PrimaryHeader& h, unsigned channels) {
  validate_subframe(s, h, channels);
  w.write(s.ssc - 1u, 2);
  w.write(s.psc, 3);
  for (unsigned c = 0; c < channels; ++c)
    for (std::size_t b = 0; b < h.subs[c]; ++b) w.write(s.pmode[c][b], 1);
  for (unsigned c = 0; c < channels; ++c)
    for (std::size_t b = 0; b < h.subs[c]; ++b)
      if (s.pmode[c][b] != 0) w.write(s.pvq[c][b], 12);
  for (unsigned c = 0; c < channels; ++c) {
    const unsigned width = abits_width(h.bhuff[c]);
    for (std::size_t b = 0; b < h.vqsub[c]; ++b) w.write(s.abits[c][b], width);
  }
  if (s.ssc > 1) {
    for (unsigned c = 0; c < channels; ++c)
      for (std::size_t b = 0; b < h.vqsub[c]; ++b)
        if (s.abits[c][b] != 0) {
          const TmodeCode code = tmode_code(h.thuff[c], s.tmode[c][b]);
          w.write(code.code, code.length);
        }
  }
  for (unsigned c = 0; c < channels; ++c) {
    const unsigned width = scale_width(h.shuff[c]);
    for (std::size_t b = 0; b < h.vqsub[c]; ++b) {
      if (s.abits[c][b] == 0) continue;
      w.write(s.scale[c][b], width);
      if (s.tmode[c][b] != 0) w.write(s.scale2[c][b], width);
    }
  }
}

template <class Sink>
void emit_lfe(Sink& w, const Subframe& s, unsigned lff) {
  if (lff > 2) fail("invalid DTS Core LFF");
  if (lff == 0) {
    if (!s.lfe.empty()) fail("LFE samples present while LFF is zero");
    return;
  }
  if (s.lfe.size() != std::size_t{s.ssc} * lff * 2u) fail("LFE sample count does not match LFF/SSC");
  for (std::int8_t v : s.lfe) w.write(static_cast<std::uint8_t>(v), 8);
  w.write(s.lfe_scale, 8);
}

// One band's 8 samples of a subsubframe as two block-code words.
template <class Sink>
void emit_block_codes(Sink& w, const std::int32_t* index, unsigned abits) {
  const unsigned width = kBlockCodes[abits].width;
  w.write(block_code_word(index, abits), width);
  w.write(block_code_word(index + 4, abits), width);
}

template <class Sink>
void emit_audio(Sink& w, const Subframe& s, const PrimaryHeader& h, unsigned channels, bool block_codes) {
  for (unsigned c = 0; c < channels; ++c) {
    const std::size_t vqsub = h.vqsub[c];
    if (c >= s.audio.size() || s.audio[c].size() != vqsub * 8u * s.ssc || s.abits[c].size() < vqsub)
      fail("AUDIO band count mismatch");
  }
  for (std::size_t j = 0; j < s.ssc; ++j) {
    for (unsigned c = 0; c < channels; ++c) {
      const std::size_t vqsub = h.vqsub[c];
      const std::uint8_t* abits = s.abits[c].data();
      const std::int32_t* audio = s.audio[c].data() + j * vqsub * 8;
      for (std::size_t b = 0; b < vqsub; ++b) {
        const unsigned a = abits[b];
        if (a == 0) continue;
        if (a < 8) {
          if (!block_codes) fail("baseline payload supports direct NFE ABITS >= 8 only");
          emit_block_codes(w, audio + b * 8, a);
          continue;
        }
        if (a > 26) fail("NFE direct coding requires ABITS 8..26");
        emit_nfe(w, audio + b * 8, 8, a);
      }
    }
  }
}

template <class Sink>
void emit_subframes(Sink& w, const FramePayload& p) {
  const auto channels = static_cast<unsigned>(p.header.subs.size());
  for (const Subframe& s : p.subframes) {
    emit_side_info(w, s, p.header, channels);
    emit_lfe(w, s, p.lff);
    emit_audio(w, s, p.header, channels, p.block_codes);
    w.write(0xFFFFu, 16);  // DSYNC
  }
}

}  // namespace

void write_nfe_sample(BitWriter& w, std::int32_t index, unsigned abits) {
  if (abits < 8 || abits > 26) fail("NFE direct coding requires ABITS 8..26");
  emit_nfe(w, &index, 1, abits);
}

void write_subframe_sync(BitWriter& w) { w.write(0xFFFFu, 16); }

TmodeCode tmode_code(unsigned book, unsigned value) {
  if (book >= kTmodeBooks.size() || value >= kTmodeBooks[0].size()) fail("DTS TMODE book/value out of range");
  return kTmodeBooks[book][value];
}

unsigned tmode_code_length(unsigned book, unsigned value) { return tmode_code(book, value).length; }

void validate_subframe(const Subframe& s, const PrimaryHeader& h, unsigned channels) {
  validate_primary_header(h, channels);
  if (s.ssc == 0 || s.ssc > 4) fail("SSC out of range");
  if (s.psc >= 8) fail("PSC out of range");
  if (s.psc != 0) fail("Phase-3 baseline does not emit partial subsubframes");
  const std::size_t sizes[] = {s.pmode.size(), s.pvq.size(),    s.abits.size(), s.tmode.size(),
                               s.scale.size(), s.scale2.size(), s.audio.size()};
  for (std::size_t n : sizes)
    if (n != channels) fail("side-info channel vector size mismatch");
  for (unsigned c = 0; c < channels; ++c) {
    if (h.bhuff[c] != 5 && h.bhuff[c] != 6) fail("Phase-3 baseline requires linear BHUFF 5 or 6");
    if (h.shuff[c] != 5 && h.shuff[c] != 6) fail("Phase-3 baseline requires linear SHUFF 5 or 6");
    if (h.joinx[c] != 0) fail("Phase-3 baseline disables joint intensity coding");
    const std::size_t subs = h.subs[c];
    const std::size_t vqsub = h.vqsub[c];
    if (s.pmode[c].size() != subs || s.pvq[c].size() != subs) fail("prediction vector size mismatch");
    if (s.abits[c].size() != vqsub || s.tmode[c].size() != vqsub || s.scale[c].size() != vqsub ||
        s.scale2[c].size() != vqsub)
      fail("ABITS/TMODE/SCALE vector size mismatch");
    for (std::size_t b = 0; b < subs; ++b) {
      if (s.pmode[c][b] > 1) fail("DTS PMODE must be 0 or 1");
      if (s.pmode[c][b] == 1 && s.pvq[c][b] > 4095) fail("DTS PVQ index exceeds 12-bit range");
      if (s.pmode[c][b] == 0 && s.pvq[c][b] != 0) fail("PVQ must be zero when PMODE is zero");
    }
    const unsigned amax = abits_limit(h.bhuff[c]);
    const unsigned smax = scale_limit(h.shuff[c]);
    for (std::size_t b = 0; b < vqsub; ++b) {
      const unsigned a = s.abits[c][b];
      const unsigned t = s.tmode[c][b];
      if (a > amax) fail("ABITS does not fit selected linear BHUFF");
      if (t > 3) fail("TMODE out of range");
      if (s.ssc == 1 && t != 0) fail("TMODE must be zero for SSC=1");
      if (s.ssc > 1 && t != 0 && t >= s.ssc) fail("TMODE transition lies outside subframe");
      if (t != 0 && a == 0) fail("TMODE absent when ABITS is zero");
      if (s.scale[c][b] > smax || s.scale2[c][b] > smax) fail("scale index does not fit selected SHUFF");
      if (a == 0 && (s.scale[c][b] != 0 || s.scale2[c][b] != 0))
        fail("scale factor must be absent/zero when ABITS is zero");
      if (t == 0 && s.scale2[c][b] != 0) fail("second scale only present when TMODE>0");
    }
  }
}

void write_side_info(BitWriter& w, const Subframe& s, const PrimaryHeader& h, unsigned channels) {
  emit_side_info(w, s, h, channels);
}

void write_lfe(BitWriter& w, const Subframe& s, unsigned lff) { emit_lfe(w, s, lff); }

std::uint64_t lfe_bit_count(const Subframe& s, unsigned lff) {
  BitCounter counter;
  emit_lfe(counter, s, lff);
  return counter.bits;
}

void write_audio(BitWriter& w, const Subframe& s, const PrimaryHeader& h, unsigned channels) {
  emit_audio(w, s, h, channels, false);
}

BlockCodeFormat block_code_format(unsigned abits) {
  if (abits < 1 || abits > 7) fail("block code ABITS must be 1..7");
  return kBlockCodes[abits];
}

std::uint32_t block_code_word(const std::int32_t* four, unsigned abits) {
  const auto levels = static_cast<std::int32_t>(block_code_format(abits).levels);
  const std::int32_t offset = (levels - 1) / 2;
  std::uint32_t word = 0;
  for (int n = 3; n >= 0; --n) {
    const std::int32_t digit = four[n] + offset;
    if (digit < 0 || digit >= levels) fail("block code index out of range");
    word = word * static_cast<std::uint32_t>(levels) + static_cast<std::uint32_t>(digit);
  }
  return word;
}

void write_payload(BitWriter& w, const FramePayload& p) {
  if (p.subframes.size() != p.header.subfs) fail("subframe count mismatch");
  write_primary_header(w, p.header, false);
  emit_subframes(w, p);
}

std::uint64_t payload_bit_count(const FramePayload& payload) {
  if (payload.subframes.size() != payload.header.subfs) fail("subframe count mismatch");
  // The primary header is short; its own writer keeps its checks in one place.
  BitWriter header(64);
  write_primary_header(header, payload.header, false);
  BitCounter counter{header.bit_count()};
  emit_subframes(counter, payload);
  return counter.bits;
}

Subframe blank_subframe(unsigned channels, unsigned bands, unsigned ssc) {
  Subframe s;
  s.ssc = static_cast<std::uint8_t>(ssc);
  s.psc = 0;
  s.pmode.assign(channels, std::vector<std::uint8_t>(bands, 0));
  s.pvq.assign(channels, std::vector<std::uint16_t>(bands, 0));
  s.abits.assign(channels, std::vector<std::uint8_t>(bands, 0));
  s.tmode.assign(channels, std::vector<std::uint8_t>(bands, 0));
  s.scale.assign(channels, std::vector<std::uint8_t>(bands, 0));
  s.scale2.assign(channels, std::vector<std::uint8_t>(bands, 0));
  s.audio.assign(channels, std::vector<std::int32_t>(static_cast<std::size_t>(bands) * 8 * ssc, 0));
  return s;
}

}  // namespace tavrin
