// The in-memory driver forms refuse buffers they cannot encode before a
// frame is written.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "app/drivers.h"
#include "bitstream/test_util.h"

namespace tavrin {
namespace {

PcmBuffer buffer(const char* layout, std::vector<std::size_t> lengths) {
  PcmBuffer b;
  b.sample_rate = 48000;
  b.bits_per_sample = 24;
  b.layout = *parse_layout_name(layout);
  for (std::size_t n : lengths) b.channels.emplace_back(n, 0.0);
  return b;
}

TEST(Drivers, MemoryFormsRefuseWhatTheyCannotEncode) {
  const EncoderOptions options;
  const struct {
    bool stereo;
    PcmBuffer buffer;
    std::string message;
  } cases[] = {
      {true, buffer("2.0", {10}), "stereo memory input requires 2 channels"},
      {true, buffer("2.0", {10, 11}), "stereo channel length mismatch"},
      {false, buffer("5.1", {10, 10, 10, 10, 10}), "memory PCM channel count mismatch"},
      {false, buffer("4.0", {0, 0, 0, 0}), "empty input"},
      {false, buffer("4.0", {10, 10, 9, 10}), "memory PCM channel lengths differ"},
      {false, buffer("2.0", {10, 10}), "unsupported channel layout"},
  };
  for (const auto& c : cases) {
    std::ostringstream out;
    const std::string message = test::message_of<std::runtime_error>([&] {
      if (c.stereo) {
        encode_stereo_memory(out, c.buffer, 48000, options, "FLAC");
      } else {
        encode_multichannel_memory(out, c.buffer, 48000, options, "FLAC");
      }
    });
    EXPECT_EQ(message, c.message);
    EXPECT_TRUE(out.str().empty());
  }
}

}  // namespace
}  // namespace tavrin
