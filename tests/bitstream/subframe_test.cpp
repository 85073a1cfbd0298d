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

// Band 0 active at ABITS 8, band 1 silent, band 2 active at ABITS 12.
Subframe subframe(unsigned channels, std::uint8_t ssc) {
  Subframe s;
  s.ssc = ssc;
  std::vector<std::int32_t> audio(24, 0);
  for (int i = 0; i < 8; ++i) {
    audio[static_cast<std::size_t>(i)] = i - 4;
    audio[static_cast<std::size_t>(16 + i)] = 250 - 70 * i;
  }
  s.pmode.assign(channels, {0, 1, 0, 0});
  s.pvq.assign(channels, {0, 4095, 0, 0});
  s.abits.assign(channels, {8, 0, 12});
  s.tmode.assign(channels, {0, 0, 0});
  s.scale.assign(channels, {5, 0, 63});
  s.scale2.assign(channels, {0, 0, 0});
  s.audio.assign(channels, audio);
  return s;
}

FramePayload payload() {
  FramePayload p;
  p.header = header(2, 2, 5, 5);
  p.lff = 2;
  p.subframes = {subframe(2, 1), subframe(2, 1)};
  for (auto& s : p.subframes) s.lfe = {-128, -1, 0, 127};
  return p;
}

// Everything is checked before the first bit is written.
TEST(Subframe, ValidationRules) {
  const struct {
    void (*edit)(Subframe&, PrimaryHeader&);
    std::string message;
  } cases[] = {
      {[](Subframe& s, PrimaryHeader&) { s.ssc = 0; }, "SSC out of range"},
      {[](Subframe& s, PrimaryHeader&) { s.ssc = 5; }, "SSC out of range"},
      {[](Subframe& s, PrimaryHeader&) { s.psc = 8; }, "PSC out of range"},
      {[](Subframe& s, PrimaryHeader&) { s.psc = 1; }, "Phase-3 baseline does not emit partial subsubframes"},
      {[](Subframe& s, PrimaryHeader&) { s.audio.pop_back(); }, "side-info channel vector size mismatch"},
      {[](Subframe&, PrimaryHeader& h) { h.bhuff[1] = 4; }, "Phase-3 baseline requires linear BHUFF 5 or 6"},
      {[](Subframe&, PrimaryHeader& h) { h.shuff[0] = 0; }, "Phase-3 baseline requires linear SHUFF 5 or 6"},
      {[](Subframe&, PrimaryHeader& h) { h.joinx[1] = 1; }, "Phase-3 baseline disables joint intensity coding"},
      {[](Subframe& s, PrimaryHeader&) { s.pvq[1].pop_back(); }, "prediction vector size mismatch"},
      {[](Subframe& s, PrimaryHeader&) { s.scale2[0].push_back(0); }, "ABITS/TMODE/SCALE vector size mismatch"},
      {[](Subframe& s, PrimaryHeader&) { s.pmode[1][2] = 2; }, "DTS PMODE must be 0 or 1"},
      {[](Subframe& s, PrimaryHeader&) { s.pvq[1][1] = 4096; }, "DTS PVQ index exceeds 12-bit range"},
      {[](Subframe& s, PrimaryHeader&) { s.pvq[1][0] = 1; }, "PVQ must be zero when PMODE is zero"},
      {[](Subframe& s, PrimaryHeader&) { s.abits[0][0] = 16; }, "ABITS does not fit selected linear BHUFF"},
      {[](Subframe& s, PrimaryHeader& h) { h.bhuff[0] = 6; s.abits[0][0] = 27; }, "ABITS does not fit selected linear BHUFF"},
      {[](Subframe& s, PrimaryHeader&) { s.ssc = 4; s.tmode[0][0] = 4; }, "TMODE out of range"},
      {[](Subframe& s, PrimaryHeader&) { s.tmode[1][2] = 1; }, "TMODE must be zero for SSC=1"},
      {[](Subframe& s, PrimaryHeader&) { s.ssc = 2; s.tmode[0][0] = 2; }, "TMODE transition lies outside subframe"},
      {[](Subframe& s, PrimaryHeader&) { s.ssc = 3; s.tmode[0][1] = 1; }, "TMODE absent when ABITS is zero"},
      {[](Subframe& s, PrimaryHeader&) { s.scale[0][0] = 64; }, "scale index does not fit selected SHUFF"},
      {[](Subframe& s, PrimaryHeader& h) { h.shuff[0] = 6; s.scale[0][0] = 128; }, "scale index does not fit selected SHUFF"},
      {[](Subframe& s, PrimaryHeader&) { s.scale[1][1] = 1; }, "scale factor must be absent/zero when ABITS is zero"},
      {[](Subframe& s, PrimaryHeader&) { s.scale2[0][2] = 1; }, "second scale only present when TMODE>0"},
      {[](Subframe&, PrimaryHeader& h) { h.subs.pop_back(); }, "primary header channel vector size mismatch"},
  };
  for (const auto& c : cases) {
    Subframe s = subframe(2, 1);
    PrimaryHeader h = header(2, 1, 5, 5);
    c.edit(s, h);
    BitWriter w;
    EXPECT_EQ(message_of([&] { write_side_info(w, s, h, 2); }), c.message);
    EXPECT_EQ(w.bit_count(), 0u) << c.message;
  }
  // The limits themselves are accepted.
  Subframe s = subframe(1, 4);
  s.abits[0] = {26, 0, 9};
  s.scale[0] = {127, 0, 0};
  s.tmode[0] = {3, 0, 1};
  s.scale2[0] = {127, 0, 0};
  EXPECT_NO_THROW(validate_subframe(s, header(1, 1, 6, 6), 1));
}

TEST(Subframe, TmodeBooks) {
  const std::pair<std::uint32_t, unsigned> books[4][4] = {
      {{0b0, 1}, {0b10, 2}, {0b110, 3}, {0b111, 3}},
      {{0b10, 2}, {0b110, 3}, {0b111, 3}, {0b0, 1}},
      {{0b110, 3}, {0b111, 3}, {0b0, 1}, {0b10, 2}},
      {{0b00, 2}, {0b01, 2}, {0b10, 2}, {0b11, 2}},
  };
  for (unsigned b = 0; b < 4; ++b)
    for (unsigned v = 0; v < 4; ++v) {
      EXPECT_EQ(tmode_code(b, v).code, books[b][v].first) << b << "," << v;
      EXPECT_EQ(tmode_code(b, v).length, books[b][v].second) << b << "," << v;
      EXPECT_EQ(tmode_code_length(b, v), books[b][v].second);
    }
  EXPECT_EQ(message_of([] { tmode_code(4, 0); }), "DTS TMODE book/value out of range");
  EXPECT_EQ(message_of([] { tmode_code_length(0, 4); }), "DTS TMODE book/value out of range");
}

TEST(Subframe, SideInfoLayout) {
  // SSC 2: channel 0 (book 0) has a transient in band 2, channel 1 (book 1)
  // in band 0. Widths follow BHUFF 6 and SHUFF 6.
  Subframe s = subframe(2, 2);
  s.tmode[0][2] = 1;
  s.scale2[0][2] = 100;
  s.tmode[1][0] = 1;
  s.scale2[1][0] = 7;
  BitWriter w;
  write_side_info(w, s, header(2, 1, 6, 6), 2);
  BitReader r{w.bytes()};
  // SSC-1, PSC, PMODE channel by channel, PVQ of both band-1s, ABITS.
  EXPECT_EQ(r.read({2, 3, 8, 12, 12, 5, 5, 5, 5, 5, 5}), (Fields{1, 0, 0b01000100, 4095, 4095, 8, 0, 12, 8, 0, 12}));
  // TMODE: ch0 band0 '0', band2 '10' (book 0); ch1 band0 '110', band2 '10' (book 1).
  EXPECT_EQ(r.read({1, 2, 3, 2}), (Fields{0, 0b10, 0b110, 0b10}));
  // SCALE (and SCALE2 after it where TMODE is set), 7 bits each.
  EXPECT_EQ(r.read({7, 7, 7, 7, 7, 7}), (Fields{5, 63, 100, 5, 7, 63}));
  EXPECT_EQ(r.pos, w.bit_count());
  // With SSC 1 no TMODE bits appear, and BHUFF/SHUFF 5 narrow the fields.
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
    for (int i = 0; i < 8; ++i) EXPECT_EQ(r.read_signed(5), i - 4);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(r.read_signed(9), 250 - 70 * i);
  }
  EXPECT_EQ(r.read(16), 0xFFFFu);
  EXPECT_EQ(r.pos, head.bit_count() + per_subframe);
}

TEST(Subframe, PayloadRejections) {
  const struct {
    void (*edit)(FramePayload&);
    std::string message;
  } cases[] = {
      {[](FramePayload& p) { p.subframes.pop_back(); }, "subframe count mismatch"},
      {[](FramePayload& p) { p.lff = 3; }, "invalid DTS Core LFF"},
      {[](FramePayload& p) { p.subframes[1].lfe.pop_back(); }, "LFE sample count does not match LFF/SSC"},
      {[](FramePayload& p) { p.lff = 1; }, "LFE sample count does not match LFF/SSC"},
      {[](FramePayload& p) { p.lff = 0; }, "LFE samples present while LFF is zero"},
      {[](FramePayload& p) { p.subframes[0].audio[1].pop_back(); }, "AUDIO band count mismatch"},
      {[](FramePayload& p) { p.subframes[0].abits[0][0] = 7; }, "baseline payload supports direct NFE ABITS >= 8 only"},
      {[](FramePayload& p) { p.subframes[0].audio[0][3] = 16; }, "NFE quantization index out of signed range"},
      {[](FramePayload& p) { p.subframes[0].audio[0][3] = -17; }, "NFE quantization index out of signed range"},
      {[](FramePayload& p) { p.header.sel[0].pop_back(); }, "SEL vector must contain ABITS 1..10"},
  };
  for (const auto& c : cases) {
    FramePayload p = payload();
    c.edit(p);
    BitWriter w;
    EXPECT_EQ(message_of([&] { write_payload(w, p); }), c.message);
    EXPECT_EQ(message_of([&] { payload_bit_count(p); }), c.message);
  }
  // -16 is the smallest ABITS 8 sample; LFF 0 needs no LFE at all.
  FramePayload p = payload();
  p.lff = 0;
  for (auto& s : p.subframes) s.lfe.clear();
  p.subframes[0].audio[0][3] = -16;
  BitWriter w;
  write_payload(w, p);
  EXPECT_EQ(payload_bit_count(p), w.bit_count());
}

TEST(Frame, PadsToTargetAndReportsOverflow) {
  CoreFrame f;
  f.header.frame_bytes = 96;
  f.payload.header = header(1, 1, 5, 5);
  f.payload.subframes = {subframe(1, 1)};
  write_frame(f, 96, FrameKind::stereo);
  EXPECT_EQ(f.payload_bits, 104 + payload_bit_count(f.payload));
  BitWriter w;
  write_header(w, f.header);
  write_payload(w, f.payload);
  ASSERT_LT(w.bytes().size(), 96u);
  std::vector<std::uint8_t> padded = w.bytes();
  padded.resize(96, 0);
  EXPECT_EQ(f.bytes, padded);

  // Each extra active subband adds one PMODE bit: grow SUBS until the frame
  // ends on a byte boundary, then try the exact fit and one bit more.
  const auto add_band = [](CoreFrame& g) {
    ++g.payload.header.subs[0];
    g.payload.subframes[0].pmode[0].push_back(0);
    g.payload.subframes[0].pvq[0].push_back(0);
  };
  while ((104 + payload_bit_count(f.payload)) % 8 != 0) add_band(f);
  const std::uint64_t even = 104 + payload_bit_count(f.payload);
  write_frame(f, static_cast<std::uint32_t>(even / 8), FrameKind::multichannel);
  EXPECT_EQ(f.bytes.size(), even / 8);
  EXPECT_EQ(f.payload_bits, even);
  const std::pair<FrameKind, const char*> kinds[] = {{FrameKind::stereo, "DTS payload exceeds target frame size"},
                                                     {FrameKind::multichannel, "5.1 DTS Core payload exceeds target frame"}};
  for (const auto& [kind, message] : kinds) {
    CoreFrame g = f;
    add_band(g);
    EXPECT_EQ(message_of<std::runtime_error>([&] { write_frame(g, static_cast<std::uint32_t>(even / 8), kind); }),
              message);
    EXPECT_EQ(g.bytes, f.bytes);  // untouched on failure
  }
  // The header's own checks surface through write_frame.
  f.header.frame_bytes = 95;
  EXPECT_EQ(message_of([&] { write_frame(f, 200, FrameKind::stereo); }), "frame size 96..16384");
}

}  // namespace
}  // namespace tavrin
