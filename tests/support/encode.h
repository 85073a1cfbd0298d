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

}  // namespace tavrin::test
