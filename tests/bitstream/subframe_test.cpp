#include "bitstream/subframe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "bitstream/bit_writer.h"
#include "bitstream/frame.h"
#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using test::message_of;
using Fields = std::vector<std::uint32_t>;
using Bytes = std::vector<std::uint8_t>;

// SUBS 4 and VQSUB 3, the shape subframe() fills; linear codes, no joint
// intensity, THUFF = channel.
PrimaryHeader header(unsigned channels, std::uint8_t subfs, std::uint8_t bhuff, std::uint8_t shuff) {
  using V = std::vector<std::uint8_t>;
  PrimaryHeader h{subfs, V(channels, 4), V(channels, 3), V(channels, 0), {}, V(channels, shuff),
                  V(channels, bhuff), std::vector<V>(channels, V{1, 3, 3, 3, 3, 7, 7, 7, 7, 7})};
  for (unsigned c = 0; c < channels; ++c) h.thuff.push_back(static_cast<std::uint8_t>(c));
  return h;
}

// Band 0 at ABITS 8 and band 2 at ABITS 12, both reaching the ends of their
// ranges; band 1 silent but predicted.
const std::vector<std::int32_t> kBand0 = {-16, -1, 0, 1, 2, 3, 4, 15};
const std::vector<std::int32_t> kBand2 = {255, 180, 110, 40, -30, -100, -170, -256};
Subframe subframe(unsigned channels, std::uint8_t ssc) {
  Subframe s = blank_subframe(channels, 3);
  s.ssc = ssc;
  s.pmode.assign(channels, {0, 1, 0, 0});
  s.pvq.assign(channels, {0, 4095, 0, 0});
  s.abits.assign(channels, {8, 0, 12});
  s.scale.assign(channels, {5, 0, 63});
  for (auto& a : s.audio) {
    std::copy(kBand0.begin(), kBand0.end(), a.begin());
    std::copy(kBand2.begin(), kBand2.end(), a.begin() + 16);
  }
  return s;
}

FramePayload payload() {
  FramePayload p{header(2, 2, 5, 5), {subframe(2, 1), subframe(2, 1)}, 2};
  for (auto& s : p.subframes) s.lfe = {-128, -1, 0, 127};
  return p;
}

// Met through the payload, by the writer and the counter alike: the rules a
// decoder would trip over, then one case each for a value the writer refuses
// anyway, a needless second scale and lists of the wrong size.
TEST(Subframe, Rejections) {
  const std::pair<void (*)(Subframe& first, FramePayload&), const char*> cases[] = {
      {[](auto& s, auto&) { s.psc = 1; }, "Phase-3 baseline does not emit partial subsubframes"},
      {[](auto&, auto& p) { p.header.bhuff[1] = 4; }, "Phase-3 baseline requires linear BHUFF 5 or 6"},
      {[](auto&, auto& p) { p.header.shuff[0] = 0; }, "Phase-3 baseline requires linear SHUFF 5 or 6"},
      {[](auto&, auto& p) { p.header.joinx[1] = 1; }, "Phase-3 baseline disables joint intensity coding"},
      {[](auto& s, auto& p) { p.header.bhuff[0] = 6; s.abits[0][0] = 27; }, "ABITS does not fit selected linear BHUFF"},
      {[](auto& s, auto&) { s.tmode[1][2] = 1; }, "TMODE must be zero for SSC=1"},
      {[](auto& s, auto&) { s.ssc = 2; s.tmode[0][0] = 2; }, "TMODE transition lies outside subframe"},
      {[](auto&, auto& p) { p.lff = 3; }, "invalid DTS Core LFF"},
      {[](auto& s, auto&) { s.ssc = 2; }, "LFE sample count does not match LFF/SSC"},
      {[](auto&, auto& p) { p.lff = 0; }, "LFE samples present while LFF is zero"},
      {[](auto& s, auto&) { s.abits[0][0] = 7; }, "baseline payload supports direct NFE ABITS >= 8 only"},
      {[](auto& s, auto&) { s.audio[0][3] = 16; }, "NFE quantization index out of signed range"},
      {[](auto& s, auto&) { s.audio[0][3] = -17; }, "NFE quantization index out of signed range"},
      {[](auto& s, auto&) { s.ssc = 5; }, "SSC out of range"},
      {[](auto& s, auto&) { s.scale2[0][2] = 1; }, "second scale only present when TMODE>0"},
      {[](auto& s, auto&) { s.scale2[0].push_back(0); }, "ABITS/TMODE/SCALE vector size mismatch"},
      {[](auto& s, auto&) { s.audio[1].pop_back(); }, "AUDIO band count mismatch"},
      {[](auto&, auto& p) { p.subframes.pop_back(); }, "subframe count mismatch"},
  };
  for (const auto& [edit, message] : cases) {
    FramePayload p = payload();
    edit(p.subframes[0], p);
    BitWriter w;
    EXPECT_EQ(message_of([&] { write_payload(w, p); }), message);
    EXPECT_EQ(message_of([&] { payload_bit_count(p); }), message);
  }
}

// SSC 4: transients in bands 0 and 2 of channel 0 (TMODE book 0) and band 0
// of channel 1 (book 1). ABITS 26 and scale 127 need BHUFF 6 and SHUFF 6.
TEST(Subframe, SideInfoLayout) {
  Subframe s = subframe(2, 4);
  s.tmode[0] = {3, 0, 1};
  s.scale2[0] = {127, 0, 100};
  s.tmode[1][0] = 3;
  s.scale2[1][0] = 7;
  s.abits[1][2] = 26;
  s.scale[1][2] = 127;
  BitWriter w;
  write_side_info(w, s, header(2, 1, 6, 6), 2);
  test::BitReader r{w.bytes()};
  // SSC-1, PSC, PMODE channel by channel, PVQ of both band-1s, ABITS, TMODE where ABITS is set.
  EXPECT_EQ(r.read({2, 3, 8, 12, 12, 5, 5, 5, 5, 5, 5, 3, 2, 1, 2}),
            (Fields{3, 0, 0b01000100, 4095, 4095, 8, 0, 12, 8, 0, 26, 0b111, 0b10, 0b0, 0b10}));
  // SCALE, and SCALE2 right after it where TMODE is set.
  EXPECT_EQ(r.read({7, 7, 7, 7, 7, 7, 7}), (Fields{5, 127, 63, 100, 5, 7, 127}));
  EXPECT_EQ(r.pos, w.bit_count());
}

TEST(Subframe, PayloadOrderAndAudio) {
  FramePayload p = payload();
  p.subframes[0].lfe_scale = 124;
  BitWriter w, head;
  write_payload(w, p);
  write_primary_header(head, p.header, false);
  // SSC 1 has no TMODE; BHUFF and SHUFF 5 give ABITS 4 bits and scales 6.
  const std::uint32_t side = 2 + 3 + 8 + 24 + 24 + 24, per_subframe = side + 40 + 2 * (8 * 5 + 8 * 9) + 16;
  EXPECT_EQ(w.bit_count(), head.bit_count() + 2 * per_subframe);
  EXPECT_EQ(payload_bit_count(p), w.bit_count());
  test::BitReader r{w.bytes(), head.bit_count() + side};
  EXPECT_EQ(r.read({8, 8, 8, 8, 8}), (Fields{0x80, 0xFF, 0, 127, 124}));  // LFE bytes, then the scale
  for (int c = 0; c < 2; ++c) {
    for (std::int32_t v : kBand0) EXPECT_EQ(r.read(5), std::uint32_t(v) & 0x1Fu);
    for (std::int32_t v : kBand2) EXPECT_EQ(r.read(9), std::uint32_t(v) & 0x1FFu);
  }
  EXPECT_EQ(r.read(16), 0xFFFFu);
  EXPECT_EQ(r.pos, head.bit_count() + per_subframe);
}

// Four samples of ABITS 1..7 make one word, the first sample the lowest
// digit, in the fewest bits that hold every word.
TEST(Subframe, BlockCodeWordsPackTheFirstSampleLowest) {
  struct Case {
    unsigned abits;
    std::int32_t four[4];
    std::uint32_t word;
  };
  const Case cases[] = {
      {1, {-1, -1, -1, -1}, 0}, {1, {1, -1, -1, -1}, 2}, {1, {0, 0, 0, 1}, 1 + 3 + 9 + 2 * 27}, {1, {1, 1, 1, 1}, 80},
      {7, {12, -12, 0, 0}, 24 + 0 * 25 + 12 * 625 + 12 * 15625}, {5, {6, 6, 6, 6}, 13 * 13 * 13 * 13 - 1},
  };
  for (const Case& c : cases) EXPECT_EQ(block_code_word(c.four, c.abits), c.word) << c.abits;
  for (unsigned a = 1; a <= 7; ++a) {
    const BlockCodeFormat f = block_code_format(a);
    EXPECT_LT(std::pow(f.levels, 4) - 1, std::pow(2.0, f.width)) << a;
    EXPECT_GE(std::pow(f.levels, 4), std::pow(2.0, f.width - 1)) << a;
  }
  const std::int32_t outside[4] = {0, 0, 2, 0};
  EXPECT_THROW(block_code_word(outside, 1), std::invalid_argument);
}

// Zero padding to the target; an exact fit is taken, one bit more is not and
// leaves the frame alone.
TEST(Frame, PadsToTargetAndReportsOverflow) {
  CoreFrame f;
  f.header.frame_bytes = 96;
  f.payload = {header(1, 1, 5, 5), {subframe(1, 1)}, 0};
  write_frame(f, 96, FrameKind::stereo);
  BitWriter w;
  write_header(w, f.header);
  write_payload(w, f.payload);
  EXPECT_EQ(f.payload_bits, w.bit_count());
  Bytes padded = w.take_bytes();
  padded.resize(96, 0);
  EXPECT_EQ(f.bytes, padded);
  const std::pair<FrameKind, const char*> kinds[] = {{FrameKind::stereo, "DTS payload exceeds target frame size"},
                                                     {FrameKind::multichannel, "5.1 DTS Core payload exceeds target frame"}};
  for (const auto& [frame_kind, message] : kinds) {
    const FrameKind kind = frame_kind;  // clang 14 cannot capture a structured binding
    BitWriter exact, over;
    exact.write(0xABCDEFu, 24);
    over.write(0x1579BDFu, 25);
    CoreFrame g;
    finish_frame(g, exact, 3, kind);
    EXPECT_EQ(message_of<std::runtime_error>([&] { finish_frame(g, over, 3, kind); }), message);
    EXPECT_EQ(g.bytes, (Bytes{0xAB, 0xCD, 0xEF}));
  }
}

}  // namespace
}  // namespace tavrin
