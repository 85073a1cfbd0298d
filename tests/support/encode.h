#pragma once
// The checks every encode by the real program must pass, for the tests that
// run it (header-only: it reports through GoogleTest, which the support
// library does not link).
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "support/decoders.h"
#include "support/measure.h"

namespace tavrin::test {

// What an encode is asked to make.
struct StreamFacts {
  std::uint32_t rate = 48000;
  std::uint32_t bitrate = 768000;
  std::size_t samples = 0;  // per channel, before padding
  int channels = 2;         // as decoded, the LFE included
  std::string layout;       // ffprobe's name, e.g. "5.1(side)"; empty: not checked
};

struct Encoded {
  CommandResult run;
  DecodedAudio decoded;  // ffmpeg's; empty for an empty stream
};

// Runs argv (the program and its arguments, writing `stream`) and holds the
// result to a clean exit with nothing on standard error, exactly the CBR
// size, the rate, bit rate and channels ffprobe reports, and every frame
// decoded cleanly by libdca and by ffmpeg.
inline Encoded encode_and_check(const std::vector<std::string>& argv, const std::filesystem::path& stream,
                                const StreamFacts& want) {
  Encoded e;
  e.run = run_command(argv);
  EXPECT_EQ(e.run.exit_status, 0) << e.run.err;
  EXPECT_EQ(e.run.err, "");
  EXPECT_EQ(std::filesystem::file_size(stream), expected_stream_bytes(want.rate, want.bitrate, want.samples));
  if (want.samples == 0) return e;

  const StreamInfo probe = probe_stream(stream);
  EXPECT_TRUE(probe.ok) << probe.run.err;
  EXPECT_EQ(probe.codec_name, "dts");
  EXPECT_EQ(probe.sample_rate, static_cast<int>(want.rate));
  EXPECT_EQ(probe.channels, want.channels);
  if (!want.layout.empty()) {
    EXPECT_EQ(probe.channel_layout, want.layout);
  }
  EXPECT_EQ(probe.bit_rate, static_cast<std::int64_t>(want.bitrate));

  const std::size_t frames = (want.samples + 1023) / 1024;
  const DcadecResult dca = run_dcadec(stream, "null");
  EXPECT_TRUE(dca.clean()) << dca.errors;
  EXPECT_EQ(dca.frames_decoded, static_cast<long>(frames));

  e.decoded = decode_with_ffmpeg(stream, want.channels);
  EXPECT_TRUE(e.decoded.clean()) << e.decoded.run.err;
  EXPECT_EQ(e.decoded.channels.size(), static_cast<std::size_t>(want.channels));
  for (const auto& c : e.decoded.channels) EXPECT_EQ(c.size(), frames * 1024);
  return e;
}

#ifdef TAVRIN_BINARY
// encode_and_check of `[env] tavrin-dts <input> <input>.dts -b <bit rate> <extra>`.
inline Encoded encode_file(const std::filesystem::path& input, const StreamFacts& want,
                           const std::vector<std::string>& extra = {}, const std::string& env = "") {
  const std::filesystem::path stream = std::filesystem::path(input).replace_extension(".dts");
  std::vector<std::string> args = {TAVRIN_BINARY, input.string(), stream.string(), "-b", std::to_string(want.bitrate)};
  if (!env.empty()) args.insert(args.begin(), {"env", env});
  args.insert(args.end(), extra.begin(), extra.end());
  return encode_and_check(args, stream, want);
}
#endif

// A main channel comes back exactly kCodecDelay late at unity gain, at
// least `min_snr_db` clean.
inline Match expect_unity(const std::vector<double>& source, const std::vector<float>& decoded, double min_snr_db) {
  const Match m = compare(source, decoded, kCodecDelay);
  EXPECT_NEAR(m.gain_db, 0.0, 0.05);
  EXPECT_GE(m.snr_db, min_snr_db);
  return m;
}

// The LFE within its coder's alignment and level.
inline void expect_lfe_matches(const std::vector<double>& source, const std::vector<float>& decoded) {
  const std::size_t delay = best_delay(source, decoded, kCodecDelay - 40, kCodecDelay + 40);
  EXPECT_LE(delay > kCodecDelay ? delay - kCodecDelay : kCodecDelay - delay, 16u);
  EXPECT_NEAR(compare(source, decoded, delay).gain_db, 0.0, 0.5);
}

}  // namespace tavrin::test
