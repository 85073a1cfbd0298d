#include "bitstream/subframe.h"

#include <gtest/gtest.h>

#include <vector>

#include "bitstream/bit_writer.h"
#include "bitstream/frame.h"
#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using test::BitReader;
using test::message_of;
using Fields = std::vector<std::uint32_t>;

// SUBS 4, VQSUB 3: the shape subframe() fills.
PrimaryHeader header(unsigned channels, std::uint8_t subfs, std::uint8_t bhuff, std::uint8_t shuff) {
  return test::primary_header(channels, 4, 3, bhuff, shuff, subfs);
}

// Band 0 active at ABITS 8, band 1 silent but predicted, band 2 active at
// ABITS 12.
Subframe subframe(unsigned channels, std::uint8_t ssc) {
  Subframe s = blank_subframe(channels, 3);
  s.ssc = ssc;
  s.pmode.assign(channels, {0, 1, 0, 0});
  s.pvq.assign(channels, {0, 4095, 0, 0});
  s.abits.assign(channels, {8, 0, 12});
  s.scale.assign(channels, {5, 0, 63});
  for (auto& a : s.audio) {
    for (int i = 0; i < 8; ++i) a[i] = i - 4;
    for (int i = 0; i < 8; ++i) a[16 + i] = 250 - 70 * i;
  }
  return s;
}

FramePayload payload() {
  FramePayload p{header(2, 2, 5, 5), {subframe(2, 1), subframe(2, 1)}, 2};
  for (auto& s : p.subframes) s.lfe = {-128, -1, 0, 127};
  return p;
}

// Each rule is met through the payload, by the writer and the counter alike.
TEST(Subframe, Rejections) {
  const std::pair<void (*)(Subframe& first, FramePayload&), const char*> cases[] = {
      {[](auto& s, auto&) { s.ssc = 0; }, "SSC out of range"}, {[](auto& s, auto&) { s.ssc = 5; }, "SSC out of range"},
      {[](auto& s, auto&) { s.psc = 8; }, "PSC out of range"},
      {[](auto& s, auto&) { s.psc = 1; }, "Phase-3 baseline does not emit partial subsubframes"},
      {[](auto& s, auto&) { s.audio.pop_back(); }, "side-info channel vector size mismatch"},
      {[](auto&, auto& p) { p.header.bhuff[1] = 4; }, "Phase-3 baseline requires linear BHUFF 5 or 6"},
      {[](auto&, auto& p) { p.header.shuff[0] = 0; }, "Phase-3 baseline requires linear SHUFF 5 or 6"},
      {[](auto&, auto& p) { p.header.joinx[1] = 1; }, "Phase-3 baseline disables joint intensity coding"},
      {[](auto& s, auto&) { s.pvq[1].pop_back(); }, "prediction vector size mismatch"},
      {[](auto& s, auto&) { s.scale2[0].push_back(0); }, "ABITS/TMODE/SCALE vector size mismatch"},
      {[](auto& s, auto&) { s.pmode[1][2] = 2; }, "DTS PMODE must be 0 or 1"},
      {[](auto& s, auto&) { s.pvq[1][1] = 4096; }, "DTS PVQ index exceeds 12-bit range"},
      {[](auto& s, auto&) { s.pvq[1][0] = 1; }, "PVQ must be zero when PMODE is zero"},
      {[](auto& s, auto&) { s.abits[0][0] = 16; }, "ABITS does not fit selected linear BHUFF"},
      {[](auto& s, auto& p) { p.header.bhuff[0] = 6; s.abits[0][0] = 27; }, "ABITS does not fit selected linear BHUFF"},
      {[](auto& s, auto&) { s.ssc = 4; s.tmode[0][0] = 4; }, "TMODE out of range"},
      {[](auto& s, auto&) { s.tmode[1][2] = 1; }, "TMODE must be zero for SSC=1"},
      {[](auto& s, auto&) { s.ssc = 2; s.tmode[0][0] = 2; }, "TMODE transition lies outside subframe"},
      {[](auto& s, auto&) { s.ssc = 3; s.tmode[0][1] = 1; }, "TMODE absent when ABITS is zero"},
      {[](auto& s, auto&) { s.scale[0][0] = 64; }, "scale index does not fit selected SHUFF"},
      {[](auto& s, auto& p) { p.header.shuff[0] = 6; s.scale[0][0] = 128; }, "scale index does not fit selected SHUFF"},
      {[](auto& s, auto&) { s.scale[1][1] = 1; }, "scale factor must be absent/zero when ABITS is zero"},
      {[](auto& s, auto&) { s.scale2[0][2] = 1; }, "second scale only present when TMODE>0"},
      {[](auto&, auto& p) { p.subframes.pop_back(); }, "subframe count mismatch"},
      {[](auto&, auto& p) { p.header.sel[0].pop_back(); }, "SEL vector must contain ABITS 1..10"},
      {[](auto&, auto& p) { p.lff = 3; }, "invalid DTS Core LFF"},
      {[](auto&, auto& p) { p.lff = 1; }, "LFE sample count does not match LFF/SSC"},
      {[](auto& s, auto&) { s.ssc = 2; }, "LFE sample count does not match LFF/SSC"},
      {[](auto&, auto& p) { p.lff = 0; }, "LFE samples present while LFF is zero"},
      {[](auto& s, auto&) { s.audio[1].pop_back(); }, "AUDIO band count mismatch"},
      {[](auto& s, auto&) { s.abits[0][0] = 7; }, "baseline payload supports direct NFE ABITS >= 8 only"},
      {[](auto& s, auto&) { s.audio[0][3] = 16; }, "NFE quantization index out of signed range"},
      {[](auto& s, auto&) { s.audio[0][3] = -17; }, "NFE quantization index out of signed range"},
  };
  for (const auto& [edit, message] : cases) {
    FramePayload p = payload();
    edit(p.subframes[0], p);
    BitWriter w;
    EXPECT_EQ(message_of([&] { write_payload(w, p); }), message);
    EXPECT_EQ(message_of([&] { payload_bit_count(p); }), message);
  }
  // Side information is checked whole, its header first, before its first bit.
  Subframe late = subframe(2, 1);
  late.scale2[1][2] = 1;
  BitWriter w;
  EXPECT_THROW(write_side_info(w, late, header(2, 1, 5, 5), 2), std::invalid_argument);
  EXPECT_EQ(w.bit_count(), 0u);
  EXPECT_EQ(message_of([] { validate_subframe(subframe(2, 1), header(1, 1, 5, 5), 2); }),
            "primary header channel vector size mismatch");
  EXPECT_EQ(message_of([] { tmode_code(4, 0); }), "DTS TMODE book/value out of range");
  EXPECT_EQ(message_of([] { tmode_code_length(0, 4); }), "DTS TMODE book/value out of range");
}

// The limits are taken, and counted as written: ABITS 26 and scales 127,
// TMODE 3 of SSC 4, ABITS 8 samples -16 and 15, no LFE under LFF 0.
TEST(Subframe, AcceptsTheLimits) {
  FramePayload p = payload();
  p.header = header(2, 2, 6, 6);
  p.lff = 0;
  for (auto& s : p.subframes) {
    s.lfe.clear();
    s.ssc = 4;
    s.abits[0][0] = 26;
    s.scale[0] = {127, 0, 0};
    s.tmode[0] = {3, 0, 1};
    s.scale2[0] = {127, 0, 127};
  }
  p.subframes[1].audio[1][3] = -16;
  p.subframes[1].audio[1][4] = 15;
  BitWriter w;
  write_payload(w, p);
  EXPECT_EQ(payload_bit_count(p), w.bit_count());
}

TEST(Subframe, SideInfoLayout) {
  // SSC 2: channel 0 (book 0) has a transient in band 2, channel 1 (book 1)
  // in band 0. Widths follow BHUFF 6 and SHUFF 6, and need them.
  Subframe s = subframe(2, 2);
  s.tmode[0][2] = 1;
  s.scale2[0][2] = 100;
  s.tmode[1][0] = 1;
  s.scale2[1][0] = 7;
  s.abits[1][2] = 20;
  BitWriter w;
  write_side_info(w, s, header(2, 1, 6, 6), 2);
  BitReader r{w.bytes()};
  // SSC-1, PSC, PMODE channel by channel, PVQ of both band-1s, ABITS.
  EXPECT_EQ(r.read({2, 3, 8, 12, 12, 5, 5, 5, 5, 5, 5}), (Fields{1, 0, 0b01000100, 4095, 4095, 8, 0, 12, 8, 0, 20}));
  // TMODE: ch0 band0 '0', band2 '10' (book 0); ch1 band0 '110', band2 '10' (book 1).
  EXPECT_EQ(r.read({1, 2, 3, 2}), (Fields{0, 0b10, 0b110, 0b10}));
  // SCALE, and SCALE2 right after it where TMODE is set.
  EXPECT_EQ(r.read({7, 7, 7, 7, 7, 7}), (Fields{5, 63, 100, 5, 7, 63}));
  EXPECT_EQ(r.pos, w.bit_count());
  // SSC 1 has no TMODE bits, and BHUFF/SHUFF 5 narrow the fields.
  BitWriter v;
  write_side_info(v, subframe(1, 1), header(1, 1, 5, 5), 1);
  EXPECT_EQ(v.bit_count(), 2u + 3 + 4 + 12 + 3 * 4 + 2 * 6);
}

TEST(Subframe, PayloadOrderAndAudio) {
  FramePayload p = payload();
  p.subframes[0].lfe_scale = 124;
  BitWriter w, head, side;
  write_payload(w, p);
  write_primary_header(head, p.header, false);
  write_side_info(side, p.subframes[0], p.header, 2);
  const std::uint32_t per_subframe = side.bit_count() + 40 + 2 * (8 * 5 + 8 * 9) + 16;
  EXPECT_EQ(w.bit_count(), head.bit_count() + 2 * per_subframe);
  EXPECT_EQ(payload_bit_count(p), w.bit_count());
  BitReader r{w.bytes()};
  r.pos = head.bit_count() + side.bit_count();
  // LFE samples as two's complement bytes, then the scale index.
  EXPECT_EQ(r.read({8, 8, 8, 8, 8}), (Fields{0x80, 0xFF, 0, 127, 124}));
  for (int c = 0; c < 2; ++c) {
    for (int i = 0; i < 8; ++i) EXPECT_EQ(r.read(5), std::uint32_t(i - 4) & 0x1Fu);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(r.read(9), std::uint32_t(250 - 70 * i) & 0x1FFu);
  }
  EXPECT_EQ(r.read(16), 0xFFFFu);
  EXPECT_EQ(r.pos, head.bit_count() + per_subframe);
}

TEST(Frame, PadsToTargetAndReportsOverflow) {
  CoreFrame f;
  f.header.frame_bytes = 96;
  f.payload = {header(1, 1, 5, 5), {subframe(1, 1)}, 0};
  write_frame(f, 96, FrameKind::stereo);
  BitWriter w;
  write_header(w, f.header);
  write_payload(w, f.payload);
  EXPECT_EQ(f.payload_bits, w.bit_count());
  std::vector<std::uint8_t> padded = w.take_bytes();
  padded.resize(96, 0);
  EXPECT_EQ(f.bytes, padded);
  f.header.frame_bytes = 95;
  EXPECT_EQ(message_of([&] { write_frame(f, 200, FrameKind::stereo); }), "frame size 96..16384");

  // An exact fit is taken; one bit more is not, and leaves the frame alone.
  const std::pair<FrameKind, const char*> kinds[] = {{FrameKind::stereo, "DTS payload exceeds target frame size"},
                                                     {FrameKind::multichannel, "5.1 DTS Core payload exceeds target frame"}};
  const std::vector<std::uint8_t> fitted = {0xAB, 0xCD, 0xEF};
  for (const auto& [kind, message] : kinds) {
    BitWriter exact, over;
    exact.write(0xABCDEFu, 24);
    over.write(0x1579BDFu, 25);
    CoreFrame g;
    finish_frame(g, exact, 3, kind);
    EXPECT_EQ(g.bytes, fitted);
    EXPECT_EQ(message_of<std::runtime_error>([&] { finish_frame(g, over, 3, kind); }), message);
    EXPECT_EQ(g.bytes, fitted);
  }
}

}  // namespace
}  // namespace tavrin
