#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "bitstream/test_util.h"
#include "input/flac.h"
#include "platform/names.h"
#include "support/decoders.h"
#include "support/wav_writer.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;
using Channels = std::vector<std::vector<double>>;

constexpr char kFlacDirVariable[] = "TAVRIN_DTS_TEST_FLAC_DIR";

// Points the loader at a folder of the test's choosing for one scope.
struct FlacDirOverride {
  std::optional<std::string> saved;
  explicit FlacDirOverride(const std::string& folder) {
    if (const char* old = std::getenv(kFlacDirVariable)) saved = old;
    test::set_environment(kFlacDirVariable, folder.c_str());
  }
  ~FlacDirOverride() { test::set_environment(kFlacDirVariable, saved ? saved->c_str() : nullptr); }
};

// Whole-integer samples spread over the full range of `bits`, extremes
// included, so any scaling or bit-depth slip shows as an inexact value.
Channels random_audio(unsigned channel_count, std::size_t samples, unsigned bits, unsigned seed) {
  std::mt19937 rng(seed);
  const long long full = 1LL << (bits - 1);
  std::uniform_int_distribution<long long> pick(-full, full - 1);
  Channels audio(channel_count, std::vector<double>(samples));
  for (auto& channel : audio) {
    for (double& x : channel) x = static_cast<double>(pick(rng)) / static_cast<double>(full);
    if (samples > 1) {
      channel[0] = -1.0;
      channel[1] = static_cast<double>(full - 1) / static_cast<double>(full);
    }
  }
  return audio;
}

// `audio` is in FLAC's channel order; the flac tool reads it as raw PCM.
fs::path make_flac(const fs::path& dir, const std::string& name, const Channels& audio, unsigned bits,
                   unsigned rate, unsigned blocksize = 4096) {
  const fs::path raw = dir / (name + ".raw");
  const fs::path flac = dir / (name + ".flac");
  test::write_bytes(raw, encode_pcm_interleaved(audio, bits == 16 ? SampleFormat::s16le : SampleFormat::s24le));
  const test::CommandResult run = test::run_command(
      {"flac", "-s", "-f", "--no-padding", "--force-raw-format", "--endian=little", "--sign=signed",
       "--channels=" + std::to_string(audio.size()), "--bps=" + std::to_string(bits),
       "--sample-rate=" + std::to_string(rate), "--blocksize=" + std::to_string(blocksize), "-o", flac.string(),
       raw.string()});
  if (run.exit_status != 0) throw std::runtime_error("flac failed: " + run.err);
  return flac;
}

std::string failure_of(const std::function<void()>& action) { return test::message_of<std::runtime_error>(action); }

// Every test here makes its files with the flac tool.
#define SKIP_WITHOUT_FLAC_TOOL() \
  if (!test::program_available("flac")) GTEST_SKIP() << "the flac tool cannot be run here"

// XORs `count` bytes at `offset`, or, for a negative offset, in the middle
// of the file, which (with no padding block) lies in the audio frames.
void damage(const fs::path& path, long offset, std::size_t count) {
  std::vector<std::uint8_t> bytes = test::read_bytes(path);
  const std::size_t at = offset < 0 ? bytes.size() / 2 : static_cast<std::size_t>(offset);
  for (std::size_t i = 0; i < count; ++i) bytes[at + i] ^= 0xA5;
  test::write_bytes(path, bytes);
}

TEST(Flac, DecodesExactSamplesInCodingOrder) {
  SKIP_WITHOUT_FLAC_TOOL();
  struct Case {
    const char* layout;
    unsigned bits, rate, blocksize;
    std::size_t samples;
    std::vector<std::size_t> source_of_slot;  // FLAC channel feeding each coding slot
    bool stale_md5;                           // a wrong checksum still decodes
  };
  const Case cases[] = {
      {"2.0", 16, 44100, 576, 2500, {0, 1}, false},
      {"2.0", 24, 48000, 4608, 3 * 1024 + 1, {0, 1}, true},
      {"3.0", 16, 48000, 1152, 1100, {2, 0, 1}, false},
      {"4.0", 24, 44100, 1152, 900, {0, 1, 2, 3}, false},
      {"5.0", 16, 48000, 576, 1300, {2, 0, 1, 3, 4}, false},
      {"5.1", 24, 48000, 4096, 2048, {2, 0, 1, 4, 5, 3}, false},
      {"5.1", 16, 44100, 576, 1500, {2, 0, 1, 4, 5, 3}, true},
  };
  const fs::path dir = test::fresh_test_dir("flac-decode");
  unsigned seed = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.layout) + " " + std::to_string(c.bits) + " bit " + std::to_string(c.rate));
    const Channels source = random_audio(static_cast<unsigned>(c.source_of_slot.size()), c.samples, c.bits, ++seed);
    const fs::path file = make_flac(dir, "case" + std::to_string(seed), source, c.bits, c.rate, c.blocksize);
    if (c.stale_md5) damage(file, 26, 16);  // STREAMINFO's last 16 bytes

    const FlacStreamInfo info = check_flac_file(file.string());
    EXPECT_EQ(info.sample_rate, c.rate);
    EXPECT_EQ(info.bits_per_sample, c.bits);
    EXPECT_EQ(info.layout.name, c.layout);
    EXPECT_EQ(info.total_samples, c.samples);

    Channels got(source.size());
    std::vector<std::size_t> counts, expected_counts((c.samples + 1023) / 1024, 1024);
    expected_counts.back() = c.samples - 1024 * (expected_counts.size() - 1);
    read_flac_frames(file.string(), info, [&](PcmFrame& frame) {
      counts.push_back(frame.count);
      for (std::size_t slot = 0; slot < got.size(); ++slot) {
        EXPECT_EQ(frame.channels[slot].size(), frame.count);
        got[slot].insert(got[slot].end(), frame.channels[slot].begin(), frame.channels[slot].end());
      }
    });
    EXPECT_EQ(counts, expected_counts);
    for (std::size_t slot = 0; slot < got.size(); ++slot) {
      EXPECT_TRUE(got[slot] == source[c.source_of_slot[slot]]) << "coding slot " << slot;
    }
  }
}

// The loader's failures and the library's own refusals need no FLAC file, so
// they run wherever the tests do (under wine too); the rest need the flac
// tool to make their files.
TEST(Flac, Failures) {
  const fs::path dir = test::fresh_test_dir("flac-fail");
  const fs::path empty_dir = dir / "no-library";
  fs::create_directory(empty_dir);
  const fs::path not_flac = dir / "song.wav";
  write_wav_file(not_flac.string(), random_audio(2, 100, 16, 9), 48000, SampleFormat::s16le);

  struct Case {
    fs::path file;
    std::string library_dir;  // empty: the real library
    std::string message;
  };
  const std::string decode_failed = "libFLAC decode failed";
  std::vector<Case> cases = {
      {not_flac, empty_dir.string(), "FLAC input requires " + std::string(kFlacLibraryPlace)},
      {not_flac, TAVRIN_FLAC_STUB_DIR, std::string(kFlacLibraryFile) + " missing symbol: FLAC__stream_decoder_init_file"},
      {dir / "absent.flac", "", "libFLAC could not open input"},
      {not_flac, "", decode_failed},
  };
  if (test::program_available("flac")) {
    const fs::path corrupt = make_flac(dir, "corrupt", random_audio(2, 5000, 16, 8), 16, 48000, 1152);
    damage(corrupt, -1, 32);
    // Junk after the last frame: libFLAC reports it and still ends the stream
    // normally, with no block left to abort.
    const fs::path trailing = make_flac(dir, "trailing", random_audio(2, 3000, 16, 14), 16, 48000, 1152);
    std::vector<std::uint8_t> bytes = test::read_bytes(trailing);
    bytes.insert(bytes.end(), 64, 0x5A);
    test::write_bytes(trailing, bytes);
    cases.insert(cases.end(),
                 {{make_flac(dir, "empty", Channels(2), 16, 48000), "", "FLAC contained no audio frames"},
                  {corrupt, "", decode_failed},
                  {trailing, "", decode_failed},
                  {make_flac(dir, "mono", random_audio(1, 1000, 16, 10), 16, 48000), "", decode_failed},
                  {make_flac(dir, "hires", random_audio(2, 1000, 24, 11), 24, 96000), "", decode_failed}});
  }
  const FlacStreamInfo any{48000, 16, *parse_layout_name("2.0"), 3000};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file.filename().string() + " " + c.library_dir);
    std::optional<FlacDirOverride> library;
    if (!c.library_dir.empty()) library.emplace(c.library_dir);
    EXPECT_EQ(failure_of([&] { check_flac_file(c.file.string()); }), c.message);
    EXPECT_EQ(failure_of([&] { read_flac_frames(c.file.string(), any, [](PcmFrame&) {}); }), c.message);
  }
}

// The encoding pass must notice a file that no longer matches the checking
// pass rather than encode something else.
TEST(Flac, EncodingPassRejectsAChangedFile) {
  SKIP_WITHOUT_FLAC_TOOL();
  const fs::path file = make_flac(test::fresh_test_dir("flac-changed"), "a", random_audio(2, 3000, 16, 12), 16, 48000,
                                  576);
  const FlacStreamInfo info = check_flac_file(file.string());
  const auto changed = [&](auto change) {
    FlacStreamInfo expected = info;
    change(expected);
    std::uint64_t delivered = 0;
    const std::string result = failure_of([&] {
      read_flac_frames(file.string(), expected, [&](PcmFrame& frame) { delivered += frame.count; });
    });
    EXPECT_LE(delivered, expected.total_samples) << "audio beyond the checked length reached the sink";
    return result;
  };
  EXPECT_EQ(changed([](FlacStreamInfo&) {}), "<no exception>");
  EXPECT_EQ(changed([](FlacStreamInfo& e) { e.sample_rate = 44100; }), "libFLAC decode failed");
  EXPECT_EQ(changed([](FlacStreamInfo& e) { e.bits_per_sample = 24; }), "libFLAC decode failed");
  EXPECT_EQ(changed([](FlacStreamInfo& e) { e.layout = *parse_layout_name("4.0"); }), "libFLAC decode failed");
  EXPECT_EQ(changed([](FlacStreamInfo& e) { e.total_samples += 1; }), "libFLAC decode failed");  // shrank
  EXPECT_EQ(changed([](FlacStreamInfo& e) { e.total_samples = 1000; }), "libFLAC decode failed");  // grew
}

TEST(Flac, SinkFailureComesBackUnchanged) {
  SKIP_WITHOUT_FLAC_TOOL();
  struct SinkFailure {
    int call;
  };
  const fs::path file = make_flac(test::fresh_test_dir("flac-sink"), "a", random_audio(2, 2500, 16, 13), 16, 44100);
  const FlacStreamInfo info = check_flac_file(file.string());
  for (int failing_call : {1, 3}) {  // inside libFLAC's callback; the short last frame after it
    int calls = 0;
    try {
      read_flac_frames(file.string(), info, [&](PcmFrame&) {
        if (++calls == failing_call) throw SinkFailure{calls};
      });
      ADD_FAILURE() << "call " << failing_call << " did not fail";
    } catch (const SinkFailure& failure) {
      EXPECT_EQ(failure.call, failing_call);
      EXPECT_EQ(calls, failing_call);
    }
  }
}

}  // namespace
}  // namespace tavrin
