#include <gtest/gtest.h>

#include <vector>

#include "bitstream/bit_writer.h"
#include "bitstream/frame_header.h"
#include "bitstream/primary_header.h"
#include "bitstream/test_util.h"

namespace tavrin {
namespace {

using test::message_of;
using Fields = std::vector<std::uint32_t>;

Fields header_fields(const CoreFrameHeader& h) {
  BitWriter w;
  write_header(w, h);
  EXPECT_EQ(w.bit_count(), 104u);
  test::BitReader r{w.bytes()};
  return r.read({32, 1, 5, 1, 7, 14, 6, 4, 5, 1, 1, 1, 1, 1, 3, 1, 1, 2, 1, 1, 4, 2, 3, 1, 1, 4});
}

// Every flag is set in one header and clear in the other, so no two trade
// places unseen; any non-zero byte is written as 1.
TEST(FrameHeader, WritesEveryFieldInOrder) {
  CoreFrameHeader h{.frame_bytes = 4096, .sample_rate = 44100, .timef = 1, .hdcd = 1, .aspf = 1, .filts = 1, .sums = 1};
  EXPECT_EQ(header_fields(h), (Fields{0x7FFE8001u, 1, 31, 0, 31, 4095, 2, 8, 22, 0, 0, 1, 0, 1, 0, 0, 1, 0, 0, 1, 7, 0, 6, 0, 1, 0}));
  CoreFrameHeader g{.normal_frame = 0, .deficit_samples = 17, .nblks = 5, .frame_bytes = 16384, .amode = 9,
                    .bitrate = 768000, .dynf = 200, .auxf = 200, .ext_audio_id = 5, .ext_audio = 200, .lff = 2,
                    .hflag = 200, .vernum = 15, .chist = 3, .pcm_bits = 20, .pcm_es = 1, .sumf = 200, .dialnorm = 9};
  EXPECT_EQ(header_fields(g), (Fields{0x7FFE8001u, 0, 17, 0, 5, 16383, 9, 13, 15, 0, 1, 0, 1, 0, 5, 1, 0, 2, 1, 0, 15, 3, 3, 1, 0, 9}));
}

// Each check fires where it stands: the bits before the faulty field are
// already written, none after it.
TEST(FrameHeader, Rejections) {
  const struct {
    void (*edit)(CoreFrameHeader&);
    const char* message;
    std::uint32_t bits_before;
  } cases[] = {
      {[](auto& h) { h.frame_bytes = 95; }, "frame size 96..16384", 0},
      {[](auto& h) { h.frame_bytes = 16385; }, "frame size 96..16384", 0},
      {[](auto& h) { h.nblks = 4; }, "NBLKS < 5", 0},
      {[](auto& h) { h.crc_present = 1; }, "CPF/HCRC generation disabled", 0},
      {[](auto& h) { h.amode = 64; }, "value does not fit bit width", 60},
      {[](auto& h) { h.sample_rate = 96000; }, "unsupported DTS sample rate", 66},
      {[](auto& h) { h.bitrate = 1920000; }, "unsupported DTS bitrate", 70},
      {[](auto& h) { h.pcm_bits = 18; }, "PCM bits must be 16,20,24", 75},
  };
  for (const auto& c : cases) {
    CoreFrameHeader h{.frame_bytes = 2048};
    c.edit(h);
    BitWriter w;
    EXPECT_EQ(message_of([&] { write_header(w, h); }), c.message);
    EXPECT_EQ(w.bit_count(), c.bits_before) << c.message;
  }
}

// SUBFS 4, SUBS 32 and 31, VQSUB 30 and 29, THUFF 0 and 1, SHUFF 6, BHUFF 5,
// every selector at its maximum.
PrimaryHeader two_channels() {
  const std::vector<std::uint8_t> sel = {1, 3, 3, 3, 3, 7, 7, 7, 7, 7};
  return {4, {32, 31}, {30, 29}, {0, 0}, {0, 1}, {6, 6}, {5, 5}, {sel, sel}};
}

// All checked before the first bit. Channels 6, SUBS 33 and SHUFF/BHUFF 7
// would fit their fields and reach the decoder; the rest stand for the
// checks that only a confused encoder could meet.
TEST(PrimaryHeader, Rejections) {
  const std::pair<void (*)(PrimaryHeader&), const char*> cases[] = {
      {[](auto& h) { h.subs.resize(6, 2); }, "DTS core primary channels must be 1..5"},
      {[](auto& h) { h.subs[1] = 33; }, "SUBS out of range"},
      {[](auto& h) { h.shuff[1] = 7; }, "primary header selector out of range"},
      {[](auto& h) { h.bhuff[1] = 7; }, "primary header selector out of range"},
      {[](auto& h) { h.joinx.push_back(0); }, "primary header channel vector size mismatch"},
      {[](auto& h) { h.sel[1].pop_back(); }, "SEL vector must contain ABITS 1..10"},
      {[](auto& h) { h.sel[1][9] = 8; }, "SEL ABITS=6..10 out of range"},
  };
  for (const auto& [edit, message] : cases) {
    PrimaryHeader h = two_channels();
    edit(h);
    BitWriter w;
    EXPECT_EQ(message_of([&] { write_primary_header(w, h, false); }), message);
    EXPECT_EQ(w.bit_count(), 0u) << message;
  }
  BitWriter w;
  EXPECT_EQ(message_of([&] { write_primary_header(w, two_channels(), true); }),
            "Tavrin-DTS does not generate legacy AHCRC/CPF");
}

TEST(PrimaryHeader, BitLayout) {
  PrimaryHeader h = two_channels();
  h.subfs = 16;
  h.thuff[0] = 3;
  h.sel[0] = {0, 1, 2, 3, 0, 1, 2, 3, 4, 7};
  BitWriter w;
  write_primary_header(w, h, false);
  test::BitReader r{w.bytes()};
  // SUBFS-1, PCHS, SUBS-2 x2, VQSUB-1 x2, JOINX x2, THUFF x2, SHUFF x2, BHUFF x2.
  EXPECT_EQ(r.read({4, 3, 5, 5, 5, 5, 3, 3, 2, 2, 3, 3, 3, 3}), (Fields{15, 1, 30, 29, 29, 28, 0, 0, 3, 1, 6, 6, 5, 5}));
  // Selectors run ABITS-major; each one below its maximum brings a zero
  // 2-bit adjustment, eight of them here, all from channel 0.
  EXPECT_EQ(r.read({1, 1, 2, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3}),
            (Fields{0, 1, 1, 3, 2, 3, 3, 3, 0, 3, 1, 7, 2, 7, 3, 7, 4, 7, 7, 7}));
  EXPECT_EQ(w.bit_count(), r.pos + 8 * 2);
  EXPECT_EQ(r.read(16), 0u);
}

}  // namespace
}  // namespace tavrin
