#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "input/wave.h"
#include "support/wav_writer.h"

namespace tavrin {
namespace {

using S = SpeakerId;

// --- A small builder for hand-made (and broken) WAVE files -----------------

std::string le(std::uint64_t value, int bytes) {
  std::string out;
  for (int i = 0; i < bytes; ++i) out.push_back(i < 8 ? static_cast<char>((value >> (8 * i)) & 0xFF) : 0);
  return out;
}

// A chunk whose size field says `declared`, followed by whatever body is given.
std::string raw_chunk(const std::string& id, std::uint32_t declared, const std::string& body) {
  return id + le(declared, 4) + body;
}

// A well-formed chunk, padded to even length.
std::string chunk(const std::string& id, const std::string& body) {
  return raw_chunk(id, static_cast<std::uint32_t>(body.size()), body) + (body.size() % 2 ? std::string(1, '\0') : "");
}

std::string fmt_body(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate, std::uint16_t align,
                     std::uint16_t bits) {
  return le(tag, 2) + le(channels, 2) + le(rate, 4) + le(std::uint64_t{rate} * align, 4) + le(align, 2) +
         le(bits, 2);
}

std::string ext_body(std::uint16_t channels, std::uint32_t rate, std::uint16_t align, std::uint16_t bits,
                     std::uint16_t valid, std::uint32_t mask, std::uint16_t subformat = 1) {
  return fmt_body(0xFFFE, channels, rate, align, bits) + le(22, 2) + le(valid, 2) + le(mask, 4) + le(subformat, 2) +
         std::string("\x00\x00\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71", 14);
}

std::string ds64_body(std::uint64_t data_size) { return le(0, 8) + le(data_size, 8) + le(0, 8) + le(0, 4); }

std::string wave(const std::string& chunks, const char* container = "RIFF") {
  return std::string(container) + le(4 + chunks.size(), 4) + "WAVE" + chunks;
}

const std::string kStereo16 = chunk("fmt ", fmt_body(1, 2, 48000, 4, 16));
const std::string kData = chunk("data", std::string(8, '\x11'));
constexpr std::uint32_t kInDs64 = 0xFFFFFFFF;

// ---------------------------------------------------------------------------

std::string message_of(std::istream& stream) {
  try {
    open_wave(stream);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "accepted";
}

std::string message_of(const std::string& bytes) {
  std::istringstream stream(bytes);
  return message_of(stream);
}

TEST(Wave, Failures) {
  const struct {
    const char* what;
    std::string bytes;
    const char* message;
  } cases[] = {
      // Container and chunk walk.
      {"empty", "", "unexpected end of PCM/WAVE file"},
      {"RIFX", "RIFX" + le(4, 4) + "WAVE", "input is not RIFF/RF64 WAVE"},
      {"AVI", "RIFF" + le(4, 4) + "AVI " + kStereo16 + kData, "input is not RIFF/RF64 WAVE"},
      {"header only", wave(""), "WAVE missing fmt/data"},
      {"ends inside chunk header", wave("fmt \x10\0"), "unexpected end of PCM/WAVE file"},
      {"fmt only", wave(kStereo16), "unexpected end of PCM/WAVE file"},
      {"data before fmt", wave(kData + kStereo16), "WAVE missing fmt/data"},
      {"odd chunk missing its pad at the end", wave(kStereo16 + raw_chunk("LIST", 3, "abc")),
       "WAVE missing fmt/data"},
      {"unknown chunk past end", wave(raw_chunk("LIST", 100, "abc") + kStereo16 + kData), "invalid WAVE chunk"},
      {"ds64 in RIFF is an unknown chunk", wave(raw_chunk("ds64", 0xFFFFFFF0, ds64_body(8))),
       "invalid WAVE chunk"},
      // ds64.
      {"ds64 of 24 bytes", wave(chunk("ds64", ds64_body(8).substr(0, 24)) + kStereo16 + kData, "RF64"),
       "invalid RF64 ds64"},
      {"truncated ds64", wave(raw_chunk("ds64", 28, ds64_body(8).substr(0, 20)), "RF64"),
       "unexpected end of PCM/WAVE file"},
      {"ds64 claiming 4 GiB", wave(raw_chunk("ds64", 0xFFFFFFFE, ds64_body(8)) + kStereo16 + kData, "RF64"),
       "unexpected end of PCM/WAVE file"},
      {"RF64 data without ds64", wave(kStereo16 + raw_chunk("data", kInDs64, "\0\0\0\0"), "RF64"),
       "RF64 data requires ds64"},
      // fmt.
      {"fmt of 14 bytes", wave(chunk("fmt ", fmt_body(1, 2, 48000, 4, 16).substr(0, 14)) + kData),
       "invalid WAVE fmt"},
      {"truncated fmt", wave(raw_chunk("fmt ", 16, fmt_body(1, 2, 48000, 4, 16).substr(0, 10))),
       "unexpected end of PCM/WAVE file"},
      {"fmt claiming 4 GiB", wave(raw_chunk("fmt ", 0xFFFFFFFF, fmt_body(1, 2, 48000, 4, 16)) + kData),
       "unexpected end of PCM/WAVE file"},
      {"extensible fmt of 18 bytes", wave(chunk("fmt ", fmt_body(0xFFFE, 2, 48000, 4, 16) + le(0, 2)) + kData),
       "short WAVEFORMATEXTENSIBLE fmt"},
      {"extensible ADPCM subformat", wave(chunk("fmt ", ext_body(2, 48000, 4, 16, 16, 0x3, 2)) + kData),
       "unsupported WAVEFORMATEXTENSIBLE subformat"},
      // Contents, checked in this order.
      {"96 kHz 8-bit mono", wave(chunk("fmt ", fmt_body(1, 1, 96000, 1, 8)) + kData),
       "supported sample rates are 44.1/48 kHz"},
      {"8-bit", wave(chunk("fmt ", fmt_body(1, 2, 48000, 2, 8)) + kData), "unsupported WAVE PCM format"},
      {"16-bit float", wave(chunk("fmt ", fmt_body(3, 2, 48000, 4, 16)) + kData), "unsupported WAVE PCM format"},
      {"mu-law", wave(chunk("fmt ", fmt_body(7, 2, 48000, 2, 16)) + kData), "unsupported WAVE PCM format"},
      {"24 in 24 with 20 valid", wave(chunk("fmt ", ext_body(2, 48000, 6, 24, 20, 0x3)) + kData),
       "packed valid-bits-in-container PCM is not yet supported"},
      {"6 channels, mask 0x63F", wave(chunk("fmt ", ext_body(6, 48000, 12, 16, 16, 0x63F)) + kData),
       "unsupported WAVEFORMATEXTENSIBLE speaker mask"},
      {"extensible, no channels", wave(chunk("fmt ", ext_body(0, 48000, 0, 16, 16, 0)) + kData),
       "unsupported WAVEFORMATEXTENSIBLE speaker mask"},
      {"plain 6 channels", wave(chunk("fmt ", fmt_body(1, 6, 48000, 12, 16)) + kData),
       "multichannel WAVE requires WAVEFORMATEXTENSIBLE speaker mask"},
      {"plain mono", wave(chunk("fmt ", fmt_body(1, 1, 48000, 2, 16)) + kData),
       "multichannel WAVE requires WAVEFORMATEXTENSIBLE speaker mask"},
      {"stereo 16-bit, alignment 6", wave(chunk("fmt ", fmt_body(1, 2, 48000, 6, 16)) + kData),
       "unsupported WAVE block alignment"},
      {"5.1 24-bit, alignment 12", wave(chunk("fmt ", ext_body(6, 44100, 12, 24, 24, 0x3F)) + kData),
       "unsupported WAVE block alignment"},
  };
  for (const auto& c : cases) EXPECT_EQ(message_of(c.bytes), c.message) << c.what;
}

TEST(Wave, ChunkVariantsThatOpen) {
  const std::string ext51 = chunk("fmt ", ext_body(6, 44100, 18, 24, 24, 0x3F));
  const struct {
    const char* what;
    std::string bytes;
    SampleFormat format;
    const char* layout;
    std::vector<SpeakerId> order;
    std::uint64_t data_bytes;
    bool extensible, rf64;
  } cases[] = {
      {"odd LIST first", wave(chunk("LIST", "odd") + kStereo16 + kData + "trailer"), SampleFormat::s16le, "2.0",
       {S::L, S::R}, 8, false, false},
      {"5.1 back surrounds", wave(ext51 + kData), SampleFormat::s24le, "5.1",
       {S::L, S::R, S::C, S::LFE, S::SL, S::SR}, 8, true, false},
      {"4.0 side pair, float", wave(chunk("fmt ", ext_body(4, 48000, 16, 32, 32, 0x603, 3)) + kData),
       SampleFormat::f32le, "4.0", {S::L, S::R, S::SL, S::SR}, 8, true, false},
      {"plain float", wave(chunk("fmt ", fmt_body(3, 2, 44100, 8, 32) + le(0, 2)) + kData), SampleFormat::f32le,
       "2.0", {S::L, S::R}, 8, false, false},
      {"oversized fmt body", wave(chunk("fmt ", ext_body(3, 48000, 6, 16, 16, 0x7) + std::string(31, 'x')) + kData),
       SampleFormat::s16le, "3.0", {S::L, S::R, S::C}, 8, true, false},
      {"later fmt wins", wave(ext51 + kStereo16 + kData), SampleFormat::s16le, "2.0", {S::L, S::R}, 8, false, false},
      {"small ds64 in RIFF skipped", wave(chunk("ds64", ds64_body(99)) + kStereo16 + kData), SampleFormat::s16le,
       "2.0", {S::L, S::R}, 8, false, false},
      {"RF64, 6 GiB in ds64",
       wave(chunk("ds64", ds64_body(std::uint64_t{6} << 30)) + kStereo16 + raw_chunk("data", kInDs64, "\x11"), "RF64"),
       SampleFormat::s16le, "2.0", {S::L, S::R}, std::uint64_t{6} << 30, false, true},
      {"RF64, longer ds64 body",
       wave(chunk("ds64", ds64_body(std::uint64_t{5} << 32) + le(1, 12)) + kStereo16 + raw_chunk("data", kInDs64, "\x11"), "RF64"),
       SampleFormat::s16le, "2.0", {S::L, S::R}, std::uint64_t{5} << 32, false, true},
      {"data size past end of file is reported, not checked", wave(kStereo16 + raw_chunk("data", 4000, "\x11")),
       SampleFormat::s16le, "2.0", {S::L, S::R}, 4000, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::istringstream stream(c.bytes);
    const PcmSourceInfo info = open_wave(stream);
    EXPECT_EQ(info.format, c.format);
    EXPECT_EQ(info.layout.name, c.layout);
    EXPECT_EQ(info.source_order, c.order);
    EXPECT_EQ(info.data_bytes, c.data_bytes);
    EXPECT_EQ(info.extensible, c.extensible);
    EXPECT_EQ(info.rf64, c.rf64);
    EXPECT_FALSE(info.raw);
    EXPECT_EQ(static_cast<std::uint64_t>(stream.tellg()), info.data_offset);
    EXPECT_EQ(stream.get(), 0x11);  // left at the first sample
  }
}

TEST(Wave, RoundTripsTheTestWriter) {
  const std::vector<std::vector<double>> channels = {
      {0.5, -0.25, 1.0}, {-1.0, 0.125, 0.0}, {0.75, 0.0, -0.5}, {0.0, 0.0, 0.25}, {0.1, 0.2, 0.3}, {-0.1, -0.2, -0.3}};
  for (SampleFormat format : {SampleFormat::s16le, SampleFormat::s24le, SampleFormat::s32le, SampleFormat::f32le}) {
    for (bool rf64 : {false, true}) {
      SCOPED_TRACE(testing::Message() << sample_format_name(format) << (rf64 ? " RF64" : " RIFF"));
      const std::vector<std::uint8_t> file = build_wav_bytes(channels, 44100, format, 0x3F, rf64);
      std::istringstream stream(std::string(file.begin(), file.end()));
      const PcmSourceInfo info = open_wave(stream);
      ASSERT_EQ(info.layout.name, "5.1");
      EXPECT_EQ(info.sample_rate, 44100u);
      EXPECT_EQ(input_label(info), "WAVEFORMATEXTENSIBLE");
      ASSERT_EQ(frame_count(info), 3u);
      std::vector<std::uint8_t> pcm(info.data_bytes);
      stream.read(reinterpret_cast<char*>(pcm.data()), static_cast<std::streamsize>(pcm.size()));
      const auto coded = deinterleave_to_layout(pcm.data(), 3, format, info.layout, info.source_order);
      // Coding order C L R SL SR LFE takes file channels 2 0 1 4 5 3.
      const std::size_t from[] = {2, 0, 1, 4, 5, 3};
      const double tolerance = format == SampleFormat::s16le   ? 1.0 / 32768
                               : format == SampleFormat::s24le ? 1.0 / 8388608
                                                               : 1e-7;
      for (std::size_t k = 0; k < 6; ++k) {
        for (std::size_t f = 0; f < 3; ++f) {
          // +1.0 is not representable in integer PCM and clamps to the top code.
          EXPECT_NEAR(coded[k][f], channels[from[k]][f], tolerance) << k << "," << f;
        }
      }
    }
  }
  EXPECT_EQ(encode_pcm_interleaved({{2.0, -2.0, 0.5 / 32768}}, SampleFormat::s16le),
            (std::vector<std::uint8_t>{0xFF, 0x7F, 0x00, 0x80, 0x01, 0x00}));
}

// A chunk running past the end must fail the same way on a real file, where a
// seek past the end "succeeds", and on a stream that cannot seek at all.
TEST(Wave, OversizedChunksOnFilesAndForwardOnlyStreams) {
  const std::string bytes = wave(raw_chunk("LIST", 100000, "abc") + kStereo16 + kData);
  const std::filesystem::path dir = TAVRIN_TEST_TMP;
  std::filesystem::create_directories(dir);
  const std::filesystem::path path = dir / "input_oversized_chunk.wav";
  std::ofstream(path, std::ios::binary) << bytes;
  std::ifstream file(path, std::ios::binary);
  EXPECT_EQ(message_of(file), "invalid WAVE chunk");
  file.close();
  std::filesystem::remove(path);

  struct ForwardOnly : std::stringbuf {
    using std::stringbuf::stringbuf;
    pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override { return pos_type(-1); }
    pos_type seekpos(pos_type, std::ios::openmode) override { return pos_type(-1); }
  };
  const struct {
    std::string bytes;
    const char* message;
  } forward_cases[] = {
      {bytes, "invalid WAVE chunk"},
      {wave(raw_chunk("fmt ", 0xFFFFFFFF, fmt_body(1, 2, 48000, 4, 16))), "unexpected end of PCM/WAVE file"},
      {wave(chunk("LIST", "odd") + kStereo16 + kData), "accepted"},
  };
  for (const auto& c : forward_cases) {
    ForwardOnly buffer(c.bytes);
    std::istream stream(&buffer);
    EXPECT_EQ(message_of(stream), c.message);
    if (std::string(c.message) == "accepted") {
      EXPECT_EQ(stream.get(), 0x11);  // left at the data
    }
  }
}

// Truncations and byte flips of a valid file either open or fail with a
// message; none may crash, hang or allocate by a declared size.
TEST(Wave, DamagedFilesFailCleanly) {
  const std::string good = wave(chunk("ds64", ds64_body(16)) + chunk("LIST", "odd") +
                                    chunk("fmt ", ext_body(6, 48000, 12, 16, 16, 0x3F)) +
                                    raw_chunk("data", kInDs64, std::string(16, '\x22')),
                                "RF64");
  for (std::size_t length = 0; length < good.size(); ++length) {
    EXPECT_NE(message_of(good.substr(0, length)), "") << length;
  }
  std::mt19937 random(1234);
  for (int round = 0; round < 3000; ++round) {
    std::string damaged = good;
    for (int flips = 0; flips < 3; ++flips) {
      damaged[random() % damaged.size()] = static_cast<char>(random() & 0xFF);
    }
    EXPECT_NE(message_of(damaged), "");
  }
}

}  // namespace
}  // namespace tavrin
