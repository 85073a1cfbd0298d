// payload_bit_count() measures a payload without writing it; it must agree
// with write_payload() on the length and on every refusal.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "bitstream/bit_writer.h"
#include "bitstream/subframe.h"

namespace tavrin {
namespace {

// Two channels of 32 bands, linear books, bands at every ABITS from 0 to
// 26 with samples at both ends of their range.
FramePayload payload() {
  FramePayload p;
  p.header.subfs = 2;
  for (int c = 0; c < 2; ++c) {
    p.header.subs.push_back(32);
    p.header.vqsub.push_back(32);
    p.header.joinx.push_back(0);
    p.header.thuff.push_back(static_cast<std::uint8_t>(c));
    p.header.shuff.push_back(6);
    p.header.bhuff.push_back(6);
    p.header.sel.push_back({1, 3, 3, 3, 3, 7, 7, 7, 7, 7});
  }
  for (int k = 0; k < 2; ++k) {
    Subframe s;
    s.ssc = 1;
    s.pmode.assign(2, std::vector<std::uint8_t>(32, 0));
    s.pvq.assign(2, std::vector<std::uint16_t>(32, 0));
    s.abits.assign(2, std::vector<std::uint8_t>(32, 0));
    s.tmode.assign(2, std::vector<std::uint8_t>(32, 0));
    s.scale.assign(2, std::vector<std::uint8_t>(32, 0));
    s.scale2.assign(2, std::vector<std::uint8_t>(32, 0));
    s.audio.assign(2, std::vector<std::int32_t>(32 * 8, 0));
    for (int c = 0; c < 2; ++c) {
      for (int b = 0; b < 32; ++b) {
        const int a = b < 8 ? 0 : (b + c) % 19 + 8;
        if (a == 0) continue;
        s.abits[c][b] = static_cast<std::uint8_t>(a);
        s.scale[c][b] = static_cast<std::uint8_t>(b + 40);
        const std::int32_t half = std::int32_t{1} << (a - 4);
        for (int i = 0; i < 8; ++i) s.audio[c][b * 8 + i] = i % 2 == 0 ? half - 1 - i : -half + i;
      }
    }
    p.subframes.push_back(s);
  }
  return p;
}

// "bits N" or the message thrown.
std::string written(const FramePayload& p) {
  try {
    BitWriter w;
    write_payload(w, p);
    return "bits " + std::to_string(w.bit_count());
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

std::string counted(const FramePayload& p) {
  try {
    return "bits " + std::to_string(payload_bit_count(p));
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

TEST(PayloadCount, AgreesWithWritingOnLengthAndRefusals) {
  const struct {
    const char* name;
    void (*edit)(FramePayload&);
    bool accepted;
  } cases[] = {
      {"as built", [](FramePayload&) {}, true},
      {"predicted bands", [](FramePayload& p) { p.subframes[1].pmode[0][3] = 1; p.subframes[1].pvq[0][3] = 4095; }, true},
      {"LFE", [](FramePayload& p) { p.lff = 2; for (auto& s : p.subframes) s.lfe = {-128, 0, 1, 127}; }, true},
      {"transients", [](FramePayload& p) {
         for (auto& s : p.subframes) {
           s.ssc = 4;
           s.tmode[1][20] = 3;
           s.scale2[1][20] = 9;
           s.tmode[0][9] = 1;
         }
       }, true},
      {"sample above range", [](FramePayload& p) { p.subframes[1].audio[1][31 * 8 + 7] = 1 << 22; }, false},
      {"sample below range", [](FramePayload& p) { p.subframes[0].audio[0][19 * 8] = -17; }, false},  // ABITS 8
      {"ABITS 5", [](FramePayload& p) { p.subframes[0].abits[0][2] = 5; p.subframes[0].scale[0][2] = 1; }, false},
      {"ABITS 27", [](FramePayload& p) { p.subframes[0].abits[0][9] = 27; }, false},
      {"short audio", [](FramePayload& p) { p.subframes[1].audio[1].pop_back(); }, false},
      {"LFE count", [](FramePayload& p) { p.lff = 1; for (auto& s : p.subframes) s.lfe = {1}; }, false},
      {"LFF", [](FramePayload& p) { p.lff = 3; }, false},
      {"subframe count", [](FramePayload& p) { p.subframes.pop_back(); }, false},
      {"primary header", [](FramePayload& p) { p.header.bhuff[1] = 7; }, false},
      {"side information", [](FramePayload& p) { p.subframes[1].scale[0][0] = 3; }, false},
  };
  for (const auto& c : cases) {
    FramePayload p = payload();
    c.edit(p);
    const std::string want = written(p);
    EXPECT_EQ(want.rfind("bits ", 0) == 0, c.accepted) << c.name << ": " << want;
    EXPECT_EQ(counted(p), want) << c.name;
  }
}

}  // namespace
}  // namespace tavrin
