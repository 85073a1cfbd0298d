#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "input/wave.h"
#include "support/forward_only.h"

namespace tavrin {
namespace {

using test::ForwardOnly;

std::string le(std::uint64_t value, int bytes) {
  return bytes == 0 ? "" : static_cast<char>(value & 0xFF) + le(value >> 8, bytes - 1);
}
std::string chunk(const std::string& id, const std::string& body) {
  return id + le(body.size(), 4) + body + std::string(body.size() % 2, '\0');
}
std::string fmt_body(unsigned tag, unsigned channels, std::uint32_t rate, unsigned align, unsigned bits) {
  return le(tag, 2) + le(channels, 2) + le(rate, 4) + le(std::uint64_t{rate} * align, 4) + le(align, 2) + le(bits, 2);
}
// GUID tail left zero: only its leading format code is read.
std::string ext_body(unsigned channels, std::uint32_t rate, unsigned bits, std::uint32_t mask, unsigned subformat = 1,
                     unsigned valid = 0) {
  return fmt_body(0xFFFE, channels, rate, channels * bits / 8, bits) + le(22, 2) + le(valid ? valid : bits, 2) +
         le(mask, 4) + le(subformat, 2) + std::string(14, '\0');
}
std::string ds64_body(std::uint64_t data_size) { return le(0, 8) + le(data_size, 8) + le(0, 12); }
std::string wave(const std::string& chunks, const char* container = "RIFF") {
  return container + le(4 + chunks.size(), 4) + "WAVE" + chunks;
}

const std::string kStereo16 = chunk("fmt ", fmt_body(1, 2, 48000, 4, 16));
const std::string kData = chunk("data", std::string(8, '\x11'));
std::string with_fmt(const std::string& body) { return wave(chunk("fmt ", body) + kData); }

std::string message_of(std::istream&& stream) try {
  open_wave(stream);
  return "accepted";
} catch (const std::runtime_error& e) {
  return e.what();
}

TEST(Wave, Failures) {
  const std::pair<std::string, const char*> cases[] = {
      {wave("fmt " + le(0xFFFFFFFF, 4) + fmt_body(1, 2, 48000, 4, 16) + kData), "unexpected end of PCM/WAVE file"},
      {"RIFX" + le(4, 4) + "WAVE", "input is not RIFF/RF64 WAVE"},
      {wave(kData + kStereo16), "WAVE missing fmt/data"},
      {wave("ds64" + le(0xFFFFFFF0, 4) + ds64_body(8)), "invalid WAVE chunk"},  // only RF64 reads a ds64
      {wave(chunk("ds64", ds64_body(8).substr(0, 24)) + kStereo16 + kData, "RF64"), "invalid RF64 ds64"},
      {wave(kStereo16 + "data" + le(0xFFFFFFFF, 4), "RF64"), "RF64 data requires ds64"},
      {with_fmt(fmt_body(1, 2, 48000, 4, 16).substr(0, 14)), "invalid WAVE fmt"},
      {with_fmt(fmt_body(0xFFFE, 2, 48000, 4, 16) + le(0, 2)), "short WAVEFORMATEXTENSIBLE fmt"},
      {with_fmt(ext_body(2, 48000, 16, 0x3, 2)), "unsupported WAVEFORMATEXTENSIBLE subformat"},
      {with_fmt(fmt_body(1, 2, 96000, 4, 16)), "supported sample rates are 44.1/48 kHz"},
      {with_fmt(fmt_body(1, 2, 48000, 2, 8)), "unsupported WAVE PCM format"},
      {with_fmt(ext_body(2, 48000, 24, 0x3, 1, 20)), "packed valid-bits-in-container PCM is not yet supported"},
      {with_fmt(ext_body(6, 48000, 16, 0x63F)), "unsupported WAVEFORMATEXTENSIBLE speaker mask"},
      {with_fmt(fmt_body(1, 1, 48000, 2, 16)), "multichannel WAVE requires WAVEFORMATEXTENSIBLE speaker mask"},
      {with_fmt(fmt_body(1, 2, 48000, 6, 16)), "unsupported WAVE block alignment"},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(message_of(std::istringstream(cases[i].first)), cases[i].second) << i;
  }
}

TEST(Wave, ChunkVariantsThatOpen) {
  const std::uint64_t big = std::uint64_t{6} << 30;
  const std::tuple<std::string, SampleFormat, const char*, std::uint32_t, std::uint64_t> cases[] = {
      {wave(chunk("LIST", "odd") + kStereo16 + kData + "trailer"), SampleFormat::s16le, "2.0", 48000, 8},
      {with_fmt(ext_body(6, 44100, 24, 0x3F)), SampleFormat::s24le, "5.1", 44100, 8},  // back surrounds
      {with_fmt(ext_body(4, 48000, 32, 0x603, 3)), SampleFormat::f32le, "4.0", 48000, 8},
      {with_fmt(ext_body(3, 48000, 16, 0x7) + std::string(31, 'x')), SampleFormat::s16le, "3.0", 48000, 8},
      {wave(chunk("ds64", ds64_body(big)) + kStereo16 + "data" + le(0xFFFFFFFF, 4) + "\x11", "RF64"),
       SampleFormat::s16le, "2.0", 48000, big},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& [bytes, format, layout, rate, data_bytes] = cases[i];
    std::istringstream stream(bytes);
    const PcmSourceInfo info = open_wave(stream);
    EXPECT_EQ(std::tuple(info.format, info.layout.name, info.sample_rate, info.data_bytes),
              std::tuple(format, std::string(layout), rate, data_bytes)) << i;
    EXPECT_EQ(info.source_order, default_source_order(layout)) << i;
    EXPECT_EQ(stream.get(), 0x11) << i;  // left at the first sample
  }
}

// A pipe skips chunks by reading; on a real file a seek past the end
// "succeeds", yet an oversized chunk must still fail.
TEST(Wave, SkipsChunksInPipesAndFiles) {
  ForwardOnly pipe(wave(chunk("LIST", "odd") + kStereo16 + kData));
  std::istream forward(&pipe);
  EXPECT_EQ(open_wave(forward).data_offset, 56u);
  EXPECT_EQ(forward.get(), 0x11);
  const std::filesystem::path path = std::filesystem::path(TAVRIN_TEST_TMP) / "input_oversized_chunk.wav";
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << wave("LIST" + le(100000, 4) + "abc" + kStereo16 + kData);
  EXPECT_EQ(message_of(std::ifstream(path, std::ios::binary)), "invalid WAVE chunk");
  std::filesystem::remove(path);
}

// Only a pipe may leave its length open, and only with the placeholders
// writers use when they cannot seek back; any other stated size stands.
TEST(Wave, PipesWithoutALengthReadToTheirEnd) {
  const std::string plain = kStereo16 + "data";
  const std::tuple<std::string, bool, bool, std::uint64_t> cases[] = {
      {wave(plain + le(0xFFFFFFFF, 4)), true, true, 0},
      {wave(plain + le(0, 4)), true, true, 0},
      {wave(chunk("ds64", ds64_body(~std::uint64_t{0})) + plain + le(0xFFFFFFFF, 4), "RF64"), true, true, 0},
      {wave(chunk("ds64", ds64_body(0)) + plain + le(0xFFFFFFFF, 4), "RF64"), true, true, 0},
      {wave(plain + le(8, 4)), true, false, 8},
      {wave(plain + le(0xFFFFFFFF, 4)), false, false, 0xFFFFFFFF},  // a file keeps its checks
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& [bytes, is_pipe, until_end, data_bytes] = cases[i];
    ForwardOnly forward_only(bytes + "\x11");
    std::istringstream seekable(bytes + "\x11");
    std::istream pipe(&forward_only);
    std::istream& stream = is_pipe ? pipe : seekable;
    const PcmSourceInfo info = open_wave(stream);
    EXPECT_EQ(std::tuple(info.until_end, info.data_bytes), std::tuple(until_end, data_bytes)) << i;
    EXPECT_EQ(stream.get(), 0x11) << i;
  }
}

}  // namespace
}  // namespace tavrin
