#include <gtest/gtest.h>

#include <vector>

#include "bitstream/bit_writer.h"
#include "bitstream/frame_header.h"
#include "bitstream/lfe_scale_table.h"
#include "bitstream/primary_header.h"
#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using test::BitReader;
using test::message_of;

// All 26 header fields in order, as read back from the bits.
std::vector<std::uint32_t> read_header_fields(const std::vector<std::uint8_t>& bytes) {
  BitReader r{bytes};
  return test::read_fields(r, {32, 1, 5, 1, 7, 14, 6, 4, 5, 1, 1, 1, 1, 1, 3, 1, 1, 2, 1, 1, 4, 2, 3, 1, 1, 4});
}

TEST(FrameHeader, WritesEveryFieldInOrder) {
  CoreFrameHeader h;
  h.frame_bytes = 4096;
  h.sample_rate = 44100;
  h.bitrate = 1411200;
  h.filts = 1;
  BitWriter w;
  write_header(w, h);
  ASSERT_EQ(w.bit_count(), 104u);
  EXPECT_EQ(std::vector<std::uint8_t>(w.bytes().begin(), w.bytes().begin() + 4),
            (std::vector<std::uint8_t>{0x7F, 0xFE, 0x80, 0x01}));
  //                                   SYNC  FT SH CPF NB  FSIZE AM SF RT MIX DYN TIM AUX HDCD EID EA ASPF LFF HF FI VER CH PCMR SUMF SUMS DN
  EXPECT_EQ(read_header_fields(w.bytes()), (std::vector<std::uint32_t>{0x7FFE8001u, 1, 31, 0, 31, 4095, 2, 8, 22, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 7, 0, 6, 0, 0, 0}));

  // Flags are written as 1 for any non-zero byte; small fields as they stand.
  CoreFrameHeader g;
  g.frame_bytes = 96;
  g.nblks = 5;
  g.normal_frame = 0;
  g.deficit_samples = 17;
  g.amode = 9;
  g.sample_rate = 48000;
  g.bitrate = 768000;
  g.dynf = g.timef = g.auxf = g.hdcd = g.ext_audio = g.aspf = g.hflag = g.filts = g.sumf = g.sums = 200;
  g.ext_audio_id = 5;
  g.lff = 2;
  g.vernum = 15;
  g.chist = 3;
  g.pcm_bits = 20;
  g.pcm_es = 1;
  g.dialnorm = 9;
  BitWriter v;
  write_header(v, g);
  EXPECT_EQ(read_header_fields(v.bytes()), (std::vector<std::uint32_t>{0x7FFE8001u, 0, 17, 0, 5, 95, 9, 13, 15, 0, 1, 1, 1, 1, 5, 1, 1, 2, 1, 1, 15, 3, 3, 1, 1, 9}));
}

TEST(LfeScaleTable, CheckValuesAndLength) {
  ASSERT_EQ(kLfeScale.size(), 125u);
  const std::vector<double> first = {1, 1, 2, 2, 2, 2, 3, 3, 3, 4, 4};
  for (std::size_t i = 0; i < first.size(); ++i) EXPECT_EQ(kLfeScale[i], first[i]) << i;
  EXPECT_EQ(kLfeScale[122], 6456542.0);
  EXPECT_EQ(kLfeScale[123], 7328245.0);
  EXPECT_EQ(kLfeScale[124], 8317638.0);
  for (std::size_t i = 1; i < kLfeScale.size(); ++i) EXPECT_GE(kLfeScale[i], kLfeScale[i - 1]) << i;
}

TEST(FrameHeader, CodeTables) {
  const std::vector<std::pair<std::uint32_t, unsigned>> sfreq = {{8000, 1},  {16000, 2}, {32000, 3},
                                                                  {11025, 6}, {22050, 7}, {44100, 8},
                                                                  {12000, 11}, {24000, 12}, {48000, 13}};
  for (const auto& [rate, code] : sfreq) EXPECT_EQ(sfreq_code(rate), code) << rate;
  const std::vector<std::uint32_t> rates = {32000,  56000,   64000,   96000,   112000,  128000,  192000,
                                            224000, 256000,  320000,  384000,  448000,  512000,  576000,
                                            640000, 768000,  960000,  1024000, 1152000, 1280000, 1344000,
                                            1408000, 1411200, 1472000, 1536000};
  for (unsigned i = 0; i < rates.size(); ++i) EXPECT_EQ(rate_code(rates[i]), i) << rates[i];
  const std::vector<std::pair<std::uint32_t, unsigned>> pcmr = {{16, 0}, {20, 2}, {24, 6}};
  const std::vector<std::pair<std::uint32_t, unsigned>> pcmr_es = {{16, 1}, {20, 3}, {24, 5}};
  for (int es = 0; es < 2; ++es)
    for (const auto& [bits, code] : es ? pcmr_es : pcmr) {
      CoreFrameHeader h;
      h.frame_bytes = 2048;
      h.pcm_bits = bits;
      h.pcm_es = static_cast<std::uint8_t>(es);
      BitWriter w;
      write_header(w, h);
      EXPECT_EQ(read_header_fields(w.bytes())[22], code) << bits << " es " << es;
    }

  const std::vector<std::pair<unsigned, unsigned>> amodes = {{0, 1}, {1, 2}, {2, 2}, {3, 2}, {4, 2},
                                                             {5, 3}, {6, 3}, {7, 4}, {8, 4}, {9, 5}};
  for (const auto& [amode, ch] : amodes) EXPECT_EQ(channels_for_amode(amode), ch) << amode;
  EXPECT_EQ(message_of<std::runtime_error>([] { channels_for_amode(10); }), "unsupported AMODE");
}

TEST(FrameHeader, Rejections) {
  struct Case {
    void (*edit)(CoreFrameHeader&);
    std::string message;
    std::uint32_t bits_before_failure;  // what was already written
  };
  const std::vector<Case> cases = {
      {[](CoreFrameHeader& h) { h.frame_bytes = 95; }, "frame size 96..16384", 0},
      {[](CoreFrameHeader& h) { h.frame_bytes = 16385; }, "frame size 96..16384", 0},
      {[](CoreFrameHeader& h) { h.nblks = 4; }, "NBLKS < 5", 0},
      {[](CoreFrameHeader& h) { h.crc_present = 1; }, "CPF/HCRC generation disabled", 0},
      {[](CoreFrameHeader& h) { h.sample_rate = 96000; }, "unsupported DTS sample rate", 66},
      {[](CoreFrameHeader& h) { h.bitrate = 1920000; }, "unsupported DTS bitrate", 70},
      {[](CoreFrameHeader& h) { h.pcm_bits = 18; }, "PCM bits must be 16,20,24", 75},
      {[](CoreFrameHeader& h) { h.lff = 3; h.amode = 64; }, "value does not fit bit width", 60},
      {[](CoreFrameHeader& h) { h.vernum = 16; }, "value does not fit bit width", 89},
  };
  for (const auto& c : cases) {
    CoreFrameHeader h;
    h.frame_bytes = 2048;
    c.edit(h);
    BitWriter w;
    EXPECT_EQ(message_of([&] { write_header(w, h); }), c.message);
    EXPECT_EQ(w.bit_count(), c.bits_before_failure) << c.message;
  }
  for (unsigned size : {96u, 16384u}) {
    CoreFrameHeader h;
    h.frame_bytes = static_cast<std::uint16_t>(size);
    h.nblks = 5;
    BitWriter w;
    write_header(w, h);
    EXPECT_EQ(read_header_fields(w.bytes())[5], size - 1);
  }
}

PrimaryHeader one_channel(std::uint8_t sel_fill) {
  PrimaryHeader h;
  h.subfs = 1;
  h.subs = {32};
  h.vqsub = {32};
  h.joinx = {0};
  h.thuff = {0};
  h.shuff = {0};
  h.bhuff = {0};
  h.sel = {std::vector<std::uint8_t>(10, sel_fill)};
  return h;
}

PrimaryHeader encoder_style(unsigned channels) {
  PrimaryHeader h;
  h.subfs = 4;
  for (unsigned c = 0; c < channels; ++c) {
    h.subs.push_back(static_cast<std::uint8_t>(32 - c));
    h.vqsub.push_back(static_cast<std::uint8_t>(30 - c));
    h.joinx.push_back(0);
    h.thuff.push_back(static_cast<std::uint8_t>(c % 4));
    h.shuff.push_back(6);
    h.bhuff.push_back(5);
    h.sel.push_back({1, 3, 3, 3, 3, 7, 7, 7, 7, 7});
  }
  return h;
}

TEST(PrimaryHeader, Rejections) {
  struct Case {
    void (*edit)(PrimaryHeader&);
    std::string message;
  };
  const std::vector<Case> cases = {
      {[](PrimaryHeader& h) { h = encoder_style(6); }, "DTS core primary channels must be 1..5"},
      {[](PrimaryHeader& h) { h = encoder_style(0); }, "DTS core primary channels must be 1..5"},
      {[](PrimaryHeader& h) { h.subfs = 0; }, "SUBFS out of range"},
      {[](PrimaryHeader& h) { h.subfs = 17; }, "SUBFS out of range"},
      {[](PrimaryHeader& h) { h.vqsub.pop_back(); }, "primary header channel vector size mismatch"},
      {[](PrimaryHeader& h) { h.joinx.push_back(0); }, "primary header channel vector size mismatch"},
      {[](PrimaryHeader& h) { h.thuff.clear(); }, "primary header channel vector size mismatch"},
      {[](PrimaryHeader& h) { h.shuff.pop_back(); }, "primary header channel vector size mismatch"},
      {[](PrimaryHeader& h) { h.bhuff.pop_back(); }, "primary header channel vector size mismatch"},
      {[](PrimaryHeader& h) { h.sel.pop_back(); }, "primary header channel vector size mismatch"},
      {[](PrimaryHeader& h) { h.subs[1] = 1; }, "SUBS out of range"},
      {[](PrimaryHeader& h) { h.subs[0] = 33; }, "SUBS out of range"},
      {[](PrimaryHeader& h) { h.vqsub[1] = 0; }, "VQSUB out of range"},
      {[](PrimaryHeader& h) { h.vqsub[1] = 33; }, "VQSUB out of range"},
      {[](PrimaryHeader& h) { h.joinx[1] = 8; }, "primary header selector out of range"},
      {[](PrimaryHeader& h) { h.thuff[1] = 4; }, "primary header selector out of range"},
      {[](PrimaryHeader& h) { h.shuff[1] = 7; }, "primary header selector out of range"},
      {[](PrimaryHeader& h) { h.bhuff[1] = 7; }, "primary header selector out of range"},
      {[](PrimaryHeader& h) { h.sel[1].pop_back(); }, "SEL vector must contain ABITS 1..10"},
      {[](PrimaryHeader& h) { h.sel[1].push_back(0); }, "SEL vector must contain ABITS 1..10"},
      {[](PrimaryHeader& h) { h.sel[1][0] = 2; }, "SEL ABITS=1 out of range"},
      {[](PrimaryHeader& h) { h.sel[1][4] = 4; }, "SEL ABITS=2..5 out of range"},
      {[](PrimaryHeader& h) { h.sel[1][9] = 8; }, "SEL ABITS=6..10 out of range"},
      // Channel 0's fault is reported before channel 1's.
      {[](PrimaryHeader& h) { h.sel[0][5] = 8; h.subs[1] = 1; }, "SEL ABITS=6..10 out of range"},
  };
  for (const auto& c : cases) {
    PrimaryHeader h = encoder_style(2);
    c.edit(h);
    BitWriter w;
    EXPECT_EQ(message_of([&] { write_primary_header(w, h, false); }), c.message);
    EXPECT_EQ(w.bit_count(), 0u) << c.message;
  }
  PrimaryHeader h = encoder_style(1);
  BitWriter w;
  EXPECT_EQ(message_of([&] { write_primary_header(w, h, true); }), "Tavrin-DTS does not generate legacy AHCRC/CPF");
}

TEST(PrimaryHeader, BitLayout) {
  // Sizes: all selectors 0 means every ADJ is present; at maximum none is.
  struct Case {
    PrimaryHeader header;
    std::uint32_t bits;
  };
  PrimaryHeader mixed = one_channel(0);
  mixed.sel[0] = {1, 3, 0, 3, 1, 7, 6, 7, 7, 0};  // four ADJ fields
  const std::vector<Case> cases = {
      {one_channel(0), 72},
      {one_channel(1), 70},  // SEL for ABITS 1 at its maximum drops one ADJ
      {mixed, 52 + 4 * 2},
      {encoder_style(5), 7 + 5 * (5 + 5 + 3 + 2 + 3 + 3 + 1 + 8 + 15)},
  };
  for (const auto& c : cases) {
    BitWriter w;
    write_primary_header(w, c.header, false);
    EXPECT_EQ(w.bit_count(), c.bits);
  }

  // Field values and the ABITS-major order of the selectors.
  PrimaryHeader h = encoder_style(2);
  h.subfs = 16;
  h.sel[0] = {0, 1, 2, 3, 0, 1, 2, 3, 4, 7};
  BitWriter w;
  write_primary_header(w, h, false);
  BitReader r{w.bytes()};
  // SUBFS-1, PCHS, SUBS-2 x2, VQSUB-1 x2, JOINX x2, THUFF x2, SHUFF x2, BHUFF x2.
  EXPECT_EQ(test::read_fields(r, {4, 3, 5, 5, 5, 5, 3, 3, 2, 2, 3, 3, 3, 3}),
            (std::vector<std::uint32_t>{15, 1, 30, 29, 29, 28, 0, 0, 0, 1, 6, 6, 5, 5}));
  std::vector<std::uint32_t> sel;
  for (unsigned e = 0; e < 10; ++e)
    for (unsigned c = 0; c < 2; ++c) sel.push_back(r.read(e == 0 ? 1 : (e <= 4 ? 2 : 3)));
  EXPECT_EQ(sel, (std::vector<std::uint32_t>{0, 1, 1, 3, 2, 3, 3, 3, 0, 3, 1, 7, 2, 7, 3, 7, 4, 7, 7, 7}));
  // Channel 0 has eight selectors below maximum: eight zero ADJ fields.
  EXPECT_EQ(w.bit_count(), r.pos + 8 * 2);
  EXPECT_EQ(r.read(16), 0u);
}

}  // namespace
}  // namespace tavrin
