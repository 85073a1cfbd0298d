#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "input/wave.h"

namespace tavrin {
namespace {

// Hand-made (and broken) WAVE files.
std::string le(std::uint64_t value, int bytes) {
  return bytes == 0 ? "" : static_cast<char>(value & 0xFF) + le(value >> 8, bytes - 1);
}
std::string chunk(const std::string& id, const std::string& body) {
  return id + le(body.size(), 4) + body + std::string(body.size() % 2, '\0');
}
std::string fmt_body(unsigned tag, unsigned channels, std::uint32_t rate, unsigned align, unsigned bits) {
  return le(tag, 2) + le(channels, 2) + le(rate, 4) + le(std::uint64_t{rate} * align, 4) + le(align, 2) + le(bits, 2);
}
// The GUID tail is left zero: the reader looks only at its leading format code.
std::string ext_body(unsigned channels, std::uint32_t rate, unsigned align, unsigned bits, unsigned valid,
                     std::uint32_t mask, unsigned subformat = 1) {
  return fmt_body(0xFFFE, channels, rate, align, bits) + le(22, 2) + le(valid, 2) + le(mask, 4) + le(subformat, 2) +
         std::string(14, '\0');
}
std::string ds64_body(std::uint64_t data_size) { return le(0, 8) + le(data_size, 8) + le(0, 12); }
std::string wave(const std::string& chunks, const char* container = "RIFF") {
  return container + le(4 + chunks.size(), 4) + "WAVE" + chunks;
}

const std::string kStereo16 = chunk("fmt ", fmt_body(1, 2, 48000, 4, 16));
const std::string kData = chunk("data", std::string(8, '\x11'));
std::string with_fmt(const std::string& body) { return wave(chunk("fmt ", body) + kData); }
constexpr std::uint32_t kInDs64 = 0xFFFFFFFF;
constexpr char kEnd[] = "unexpected end of PCM/WAVE file";

// Chunks are skipped by seeking when the stream can, by reading when not.
struct ForwardOnly : std::stringbuf {
  using std::stringbuf::stringbuf;
  pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override { return pos_type(-1); }
  pos_type seekpos(pos_type, std::ios::openmode) override { return pos_type(-1); }
};

std::string message_of(std::istream& stream) {
  try {
    open_wave(stream);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "accepted";
}
// The same answer must come from a stream that cannot seek.
std::string message_of(const std::string& bytes) {
  std::istringstream seekable(bytes);
  ForwardOnly buffer(bytes);
  std::istream forward(&buffer);
  const std::string message = message_of(seekable);
  EXPECT_EQ(message_of(forward), message);
  return message;
}

TEST(Wave, Failures) {
  const std::pair<std::string, const char*> cases[] = {
      {"", kEnd},
      {"RIFX" + le(4, 4) + "WAVE", "input is not RIFF/RF64 WAVE"},
      {"RIFF" + le(4, 4) + "AVI " + kStereo16 + kData, "input is not RIFF/RF64 WAVE"},
      {wave(""), "WAVE missing fmt/data"},
      {wave(kStereo16), kEnd},
      {wave(kData + kStereo16), "WAVE missing fmt/data"},
      {wave(kStereo16 + "LIST" + le(3, 4) + "abc"), "WAVE missing fmt/data"},  // no pad byte: nothing follows
      {wave("LIST" + le(100, 4) + "abc" + kStereo16 + kData), "invalid WAVE chunk"},
      {wave("ds64" + le(0xFFFFFFF0, 4) + ds64_body(8)), "invalid WAVE chunk"},  // only RF64 reads a ds64
      {wave(chunk("ds64", ds64_body(8).substr(0, 24)) + kStereo16 + kData, "RF64"), "invalid RF64 ds64"},
      {wave("ds64" + le(28, 4) + ds64_body(8).substr(0, 20), "RF64"), kEnd},
      {wave(kStereo16 + "data" + le(kInDs64, 4), "RF64"), "RF64 data requires ds64"},
      {with_fmt(fmt_body(1, 2, 48000, 4, 16).substr(0, 14)), "invalid WAVE fmt"},
      {wave("fmt " + le(0xFFFFFFFF, 4) + fmt_body(1, 2, 48000, 4, 16) + kData), kEnd},
      {with_fmt(fmt_body(0xFFFE, 2, 48000, 4, 16) + le(0, 2)), "short WAVEFORMATEXTENSIBLE fmt"},
      {with_fmt(ext_body(2, 48000, 4, 16, 16, 0x3, 2)), "unsupported WAVEFORMATEXTENSIBLE subformat"},
      // The rate is checked before the sample format and the channels.
      {with_fmt(fmt_body(1, 1, 96000, 1, 8)), "supported sample rates are 44.1/48 kHz"},
      {with_fmt(fmt_body(1, 2, 48000, 2, 8)), "unsupported WAVE PCM format"},
      {with_fmt(fmt_body(3, 2, 48000, 4, 16)), "unsupported WAVE PCM format"},
      {with_fmt(fmt_body(7, 2, 48000, 2, 16)), "unsupported WAVE PCM format"},
      {with_fmt(ext_body(2, 48000, 6, 24, 20, 0x3)), "packed valid-bits-in-container PCM is not yet supported"},
      {with_fmt(ext_body(6, 48000, 12, 16, 16, 0x63F)), "unsupported WAVEFORMATEXTENSIBLE speaker mask"},
      {with_fmt(fmt_body(1, 1, 48000, 2, 16)), "multichannel WAVE requires WAVEFORMATEXTENSIBLE speaker mask"},
      {with_fmt(ext_body(6, 44100, 12, 24, 24, 0x3F)), "unsupported WAVE block alignment"},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(message_of(cases[i].first), cases[i].second) << i;
}

TEST(Wave, ChunkVariantsThatOpen) {
  const std::string ext51 = chunk("fmt ", ext_body(6, 44100, 18, 24, 24, 0x3F));
  const std::uint64_t big = std::uint64_t{6} << 30;
  const struct {
    std::string bytes;
    SampleFormat format;
    const char* layout;
    std::uint32_t rate = 48000;
    std::uint64_t data_bytes = 8;
  } cases[] = {
      {wave(chunk("LIST", "odd") + kStereo16 + kData + "trailer"), SampleFormat::s16le, "2.0"},
      {wave(ext51 + kData), SampleFormat::s24le, "5.1", 44100},  // back surrounds
      {with_fmt(ext_body(4, 48000, 16, 32, 32, 0x603, 3)), SampleFormat::f32le, "4.0"},
      {with_fmt(ext_body(3, 48000, 6, 16, 16, 0x7) + std::string(31, 'x')), SampleFormat::s16le, "3.0"},
      {wave(ext51 + kStereo16 + kData), SampleFormat::s16le, "2.0"},  // the later fmt wins
      {wave(chunk("ds64", ds64_body(big)) + kStereo16 + "data" + le(kInDs64, 4) + "\x11", "RF64"),
       SampleFormat::s16le, "2.0", 48000, big},
      // The data size is not held to the file.
      {wave(kStereo16 + "data" + le(4000, 4) + "\x11"), SampleFormat::s16le, "2.0", 48000, 4000},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    SCOPED_TRACE(i);
    std::istringstream stream(c.bytes);
    const PcmSourceInfo info = open_wave(stream);
    EXPECT_EQ(info.format, c.format);
    EXPECT_EQ(info.layout.name, c.layout);
    EXPECT_EQ(info.sample_rate, c.rate);
    EXPECT_EQ(info.source_order, default_source_order(c.layout));
    EXPECT_EQ(info.data_bytes, c.data_bytes);
    EXPECT_EQ(input_label(info), info.layout.name == "2.0" ? "WAVE" : "WAVEFORMATEXTENSIBLE");  // stereo is plain here
    EXPECT_EQ(info.rf64, c.bytes.starts_with("RF64"));
    EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), info.data_offset);
    EXPECT_EQ(stream.get(), 0x11);  // left at the first sample
    ForwardOnly buffer(c.bytes);
    std::istream forward(&buffer);
    EXPECT_EQ(open_wave(forward).data_offset, info.data_offset);
    EXPECT_EQ(forward.get(), 0x11);
  }
}

// On a real file a seek past the end "succeeds"; the chunk must still fail.
TEST(Wave, OversizedChunkInAFile) {
  const std::filesystem::path path = std::filesystem::path(TAVRIN_TEST_TMP) / "input_oversized_chunk.wav";
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << wave("LIST" + le(100000, 4) + "abc" + kStereo16 + kData);
  std::ifstream file(path, std::ios::binary);
  EXPECT_EQ(message_of(file), "invalid WAVE chunk");
  file.close();
  std::filesystem::remove(path);
}

// Truncations and byte flips of a valid file either open or fail with a
// message; none may crash, hang or allocate by a declared size.
TEST(Wave, DamagedFilesFailCleanly) {
  const std::string good = wave(chunk("ds64", ds64_body(16)) + chunk("LIST", "odd") +
                                    chunk("fmt ", ext_body(6, 48000, 12, 16, 16, 0x3F)) +
                                    "data" + le(kInDs64, 4) + std::string(16, '\x22'),
                                "RF64");
  for (std::size_t length = 0; length < good.size(); ++length) EXPECT_NE(message_of(good.substr(0, length)), "");
  std::mt19937 random(1234);
  for (int round = 0; round < 3000; ++round) {
    std::string damaged = good;
    for (int flips = 0; flips < 3; ++flips) damaged[random() % damaged.size()] = static_cast<char>(random() & 0xFF);
    EXPECT_NE(message_of(damaged), "");
  }
}

}  // namespace
}  // namespace tavrin
