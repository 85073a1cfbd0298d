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
using Fields = std::vector<std::uint32_t>;

// All 26 header fields in order, as read back from the bits.
Fields header_fields(const CoreFrameHeader& h) {
  BitWriter w;
  write_header(w, h);
  EXPECT_EQ(w.bit_count(), 104u);
  BitReader r{w.bytes()};
  return r.read({32, 1, 5, 1, 7, 14, 6, 4, 5, 1, 1, 1, 1, 1, 3, 1, 1, 2, 1, 1, 4, 2, 3, 1, 1, 4});
}

TEST(FrameHeader, WritesEveryFieldInOrder) {
  CoreFrameHeader h;
  h.frame_bytes = 4096;
  h.sample_rate = 44100;
  h.filts = 1;
  //                             SYNC  FT SH CPF NB  FSIZE AM SF RT MIX DYN TIM AUX HDCD EID EA ASPF LFF HF FI VER CH PCMR SUMF SUMS DN
  EXPECT_EQ(header_fields(h), (Fields{0x7FFE8001u, 1, 31, 0, 31, 4095, 2, 8, 22, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 7, 0, 6, 0, 0, 0}));
  // Flags are written as 1 for any non-zero byte; small fields as they stand.
  CoreFrameHeader g{.normal_frame = 0, .deficit_samples = 17, .nblks = 5, .frame_bytes = 96, .amode = 9,
                    .bitrate = 768000, .ext_audio_id = 5, .lff = 2, .vernum = 15, .chist = 3, .pcm_bits = 20,
                    .pcm_es = 1, .dialnorm = 9};
  g.dynf = g.timef = g.auxf = g.hdcd = g.ext_audio = g.aspf = g.hflag = g.filts = g.sumf = g.sums = 200;
  EXPECT_EQ(header_fields(g), (Fields{0x7FFE8001u, 0, 17, 0, 5, 95, 9, 13, 15, 0, 1, 1, 1, 1, 5, 1, 1, 2, 1, 1, 15, 3, 3, 1, 1, 9}));
  g.frame_bytes = 16384;
  EXPECT_EQ(header_fields(g)[5], 16383u);
}

TEST(FrameHeader, CodeTables) {
  const std::pair<std::uint32_t, unsigned> sfreq[] = {{8000, 1},   {16000, 2}, {32000, 3},  {11025, 6}, {22050, 7},
                                                      {44100, 8},  {12000, 11}, {24000, 12}, {48000, 13}};
  for (const auto& [rate, code] : sfreq) EXPECT_EQ(sfreq_code(rate), code) << rate;
  const std::uint32_t rates[] = {32000,  56000,  64000,   96000,   112000,  128000,  192000,  224000,  256000,
                                 320000, 384000, 448000,  512000,  576000,  640000,  768000,  960000,  1024000,
                                 1152000, 1280000, 1344000, 1408000, 1411200, 1472000, 1536000};
  for (unsigned i = 0; i < std::size(rates); ++i) EXPECT_EQ(rate_code(rates[i]), i) << rates[i];
  const struct {
    std::uint32_t bits;
    std::uint8_t es;
    unsigned code;
  } pcmr[] = {{16, 0, 0}, {20, 0, 2}, {24, 0, 6}, {16, 1, 1}, {20, 1, 3}, {24, 1, 5}};
  for (const auto& p : pcmr) {
    CoreFrameHeader h;
    h.frame_bytes = 2048;
    h.pcm_bits = p.bits;
    h.pcm_es = p.es;
    EXPECT_EQ(header_fields(h)[22], p.code) << p.bits << " es " << int{p.es};
  }
  const unsigned channels[] = {1, 2, 2, 2, 2, 3, 3, 4, 4, 5};
  for (unsigned amode = 0; amode < 10; ++amode) EXPECT_EQ(channels_for_amode(amode), channels[amode]) << amode;
  EXPECT_EQ(message_of<std::runtime_error>([] { channels_for_amode(10); }), "unsupported AMODE");
}

TEST(LfeScaleTable, CheckValuesAndLength) {
  ASSERT_EQ(kLfeScale.size(), 125u);
  const std::vector<double> first = {1, 1, 2, 2, 2, 2, 3, 3, 3, 4, 4};
  for (std::size_t i = 0; i < first.size(); ++i) EXPECT_EQ(kLfeScale[i], first[i]) << i;
  EXPECT_EQ(kLfeScale[122], 6456542.0);
  EXPECT_EQ(kLfeScale[124], 8317638.0);
  for (std::size_t i = 1; i < kLfeScale.size(); ++i) EXPECT_GE(kLfeScale[i], kLfeScale[i - 1]) << i;
}

// Each check fires where it stands: the bits before the faulty field are
// already written, none after it.
TEST(FrameHeader, Rejections) {
  const struct {
    void (*edit)(CoreFrameHeader&);
    std::string message;
    std::uint32_t bits_before_failure;
  } cases[] = {
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
}

// SUBS 32 and 31, VQSUB 30 and 29, THUFF 0 and 1, SHUFF 6, BHUFF 5.
PrimaryHeader two_channels() {
  PrimaryHeader h = test::primary_header(2, 32, 30, 5, 6, 4);
  h.subs[1] = 31;
  h.vqsub[1] = 29;
  return h;
}

// Everything is checked before anything is written, channel by channel.
TEST(PrimaryHeader, Rejections) {
  const std::string sizes = "primary header channel vector size mismatch", selector = "primary header selector out of range";
  const struct {
    void (*edit)(PrimaryHeader&);
    std::string message;
  } cases[] = {
      {[](PrimaryHeader& h) { h = test::primary_header(6, 32, 30, 5, 6); }, "DTS core primary channels must be 1..5"},
      {[](PrimaryHeader& h) { h = PrimaryHeader{}; }, "DTS core primary channels must be 1..5"},
      {[](PrimaryHeader& h) { h.subfs = 0; }, "SUBFS out of range"},
      {[](PrimaryHeader& h) { h.subfs = 17; }, "SUBFS out of range"},
      {[](PrimaryHeader& h) { h.vqsub.pop_back(); }, sizes},
      {[](PrimaryHeader& h) { h.joinx.push_back(0); }, sizes},
      {[](PrimaryHeader& h) { h.sel.pop_back(); }, sizes},
      {[](PrimaryHeader& h) { h.subs[1] = 1; }, "SUBS out of range"},
      {[](PrimaryHeader& h) { h.subs[0] = 33; }, "SUBS out of range"},
      {[](PrimaryHeader& h) { h.vqsub[1] = 0; }, "VQSUB out of range"},
      {[](PrimaryHeader& h) { h.vqsub[1] = 33; }, "VQSUB out of range"},
      {[](PrimaryHeader& h) { h.joinx[1] = 8; }, selector},
      {[](PrimaryHeader& h) { h.thuff[1] = 4; }, selector},
      {[](PrimaryHeader& h) { h.bhuff[1] = 7; }, selector},
      {[](PrimaryHeader& h) { h.sel[1].pop_back(); }, "SEL vector must contain ABITS 1..10"},
      {[](PrimaryHeader& h) { h.sel[1][0] = 2; }, "SEL ABITS=1 out of range"},
      {[](PrimaryHeader& h) { h.sel[1][4] = 4; }, "SEL ABITS=2..5 out of range"},
      {[](PrimaryHeader& h) { h.sel[1][9] = 8; }, "SEL ABITS=6..10 out of range"},
      {[](PrimaryHeader& h) { h.sel[0][5] = 8; h.subs[1] = 1; }, "SEL ABITS=6..10 out of range"},
  };
  for (const auto& c : cases) {
    PrimaryHeader h = two_channels();
    c.edit(h);
    BitWriter w;
    EXPECT_EQ(message_of([&] { write_primary_header(w, h, false); }), c.message);
    EXPECT_EQ(w.bit_count(), 0u) << c.message;
  }
  BitWriter w;
  EXPECT_EQ(message_of([&] { write_primary_header(w, two_channels(), true); }),
            "Tavrin-DTS does not generate legacy AHCRC/CPF");
}

TEST(PrimaryHeader, BitLayout) {
  // A selector below its maximum brings a 2-bit ADJ field.
  const auto one_channel = [](std::vector<std::uint8_t> sel) {
    PrimaryHeader h = test::primary_header(1, 32, 32, 0, 0);
    h.sel[0] = std::move(sel);
    return h;
  };
  const std::pair<PrimaryHeader, std::uint32_t> sizes[] = {
      {one_channel(std::vector<std::uint8_t>(10, 0)), 72},
      {one_channel(std::vector<std::uint8_t>(10, 1)), 70},
      {one_channel({1, 3, 0, 3, 1, 7, 6, 7, 7, 0}), 52 + 4 * 2},
      {test::primary_header(5, 32, 30, 5, 6), 7 + 5 * (5 + 5 + 3 + 2 + 3 + 3 + 1 + 8 + 15)},
  };
  for (const auto& [header, bits] : sizes) {
    BitWriter w;
    write_primary_header(w, header, false);
    EXPECT_EQ(w.bit_count(), bits);
  }
  // Field values, and the selectors ABITS-major.
  PrimaryHeader h = two_channels();
  h.subfs = 16;
  h.sel[0] = {0, 1, 2, 3, 0, 1, 2, 3, 4, 7};
  BitWriter w;
  write_primary_header(w, h, false);
  BitReader r{w.bytes()};
  // SUBFS-1, PCHS, SUBS-2 x2, VQSUB-1 x2, JOINX x2, THUFF x2, SHUFF x2, BHUFF x2.
  EXPECT_EQ(r.read({4, 3, 5, 5, 5, 5, 3, 3, 2, 2, 3, 3, 3, 3}), (Fields{15, 1, 30, 29, 29, 28, 0, 0, 0, 1, 6, 6, 5, 5}));
  Fields sel;
  for (unsigned e = 0; e < 10; ++e)
    for (unsigned c = 0; c < 2; ++c) sel.push_back(r.read(e == 0 ? 1 : (e <= 4 ? 2 : 3)));
  EXPECT_EQ(sel, (Fields{0, 1, 1, 3, 2, 3, 3, 3, 0, 3, 1, 7, 2, 7, 3, 7, 4, 7, 7, 7}));
  EXPECT_EQ(w.bit_count(), r.pos + 8 * 2);  // channel 0's eight ADJ fields, all zero
  EXPECT_EQ(r.read(16), 0u);
}

}  // namespace
}  // namespace tavrin
