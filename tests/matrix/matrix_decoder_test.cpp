// The matrix decoder's delay line, flush and block independence on
// noise-like signals. Where each kind of stereo signal is steered is judged
// end to end, speaker by speaker and by the summary's steering figures, in
// tests/integration/matrix_encode_test.cpp.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "bitstream/test_util.h"
#include "matrix/matrix_decoder.h"

namespace tavrin {
namespace {

std::vector<float> noise(std::size_t n, unsigned seed, float level = 0.3f) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(-level, level);
  std::vector<float> x(n);
  for (float& v : x) v = u(rng);
  return x;
}

// The bed of a whole signal in blocks of the given sizes (cycled), flush
// appended.
BedChannels decode_in_blocks(MatrixDecoder d, const std::vector<float>& l, const std::vector<float>& r,
                             const std::vector<std::size_t>& blocks) {
  BedChannels whole, part;
  for (std::size_t at = 0, k = 0; at < l.size(); ++k) {
    const std::size_t n = std::min(blocks[k % blocks.size()], l.size() - at);
    process_matrix(d, l.data() + at, r.data() + at, n, part);
    for (std::size_t c = 0; c < kBedChannels; ++c) whole[c].insert(whole[c].end(), part[c].begin(), part[c].end());
    at += n;
  }
  flush_matrix(d, part);
  for (std::size_t c = 0; c < kBedChannels; ++c) whole[c].insert(whole[c].end(), part[c].begin(), part[c].end());
  return whole;
}

double rms(const std::vector<float>& x, std::size_t from, std::size_t to) {
  double sum = 0.0;
  for (std::size_t i = from; i < to; ++i) sum += static_cast<double>(x[i]) * x[i];
  return std::sqrt(sum / static_cast<double>(to - from));
}

TEST(MatrixDecoder, ConstructionChecks) {
  struct Case {
    std::uint32_t rate;
    double delay;
    const char* error;  // nullptr: accepted
    std::size_t line;
  };
  const Case cases[] = {
      {0, 20.0, "matrix sample rate must be > 0", 0},
      {48000, -0.01, "matrix rear delay must be within 0..40 ms", 0},
      {48000, 40.01, "matrix rear delay must be within 0..40 ms", 0},
      {48000, std::nan(""), "matrix rear delay must be within 0..40 ms", 0},
      {48000, INFINITY, "matrix rear delay must be within 0..40 ms", 0},
      {48000, 0.0, nullptr, 0},
      {48000, 40.0, nullptr, 1920},
      {44100, 20.0, nullptr, 882},
      {44100, 12.51, nullptr, 552},  // 551.69 samples: the nearest whole number
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.rate) + " Hz, " + std::to_string(c.delay) + " ms");
    if (c.error != nullptr) {
      EXPECT_EQ(test::message_of([&] { make_matrix_decoder(c.rate, c.delay); }), c.error);
      continue;
    }
    const MatrixDecoder d = make_matrix_decoder(c.rate, c.delay);
    EXPECT_EQ(d.delay_line.size(), c.line);
    EXPECT_EQ(matrix_stats(d).rear_delay_ms, c.delay);
  }
}

// A one-sided signal is never steered: the left channel passes bit for bit.
TEST(MatrixDecoder, OneSidedSignalStaysPut) {
  const std::vector<float> l = noise(4800, 3), r(4800, 0.0f);
  MatrixDecoder d = make_matrix_decoder(48000, 20.0);
  BedChannels out;
  process_matrix(d, l.data(), r.data(), l.size(), out);
  EXPECT_EQ(out[0], l);
  for (std::size_t ch = 1; ch < kBedChannels; ++ch) EXPECT_EQ(rms(out[ch], 0, l.size()), 0.0) << ch;
}

// The rear delay shifts the surrounds by D samples and nothing else; the
// flush hands back exactly the delayed tail. Block sizes change nothing.
TEST(MatrixDecoder, DelayAndBlockSizeChangeNothingButTheSurroundTiming) {
  const std::size_t n = 20000;
  std::vector<float> l = noise(n, 4), r = noise(n, 5);
  for (std::size_t i = 0; i < n; ++i) r[i] = 0.3f * r[i] - 0.8f * l[i];  // mostly anti-correlated
  const BedChannels direct = decode_in_blocks(make_matrix_decoder(48000, 0.0), l, r, {n});
  ASSERT_EQ(direct[0].size(), n);
  for (const std::vector<std::size_t>& blocks : std::vector<std::vector<std::size_t>>{{n}, {1024}, {1, 700, 4096}}) {
    const BedChannels delayed = decode_in_blocks(make_matrix_decoder(48000, 40.0), l, r, blocks);
    const std::size_t d = 1920;
    ASSERT_EQ(delayed[4].size(), n + d);
    for (std::size_t ch = 0; ch < 4; ++ch) {
      EXPECT_TRUE(std::equal(direct[ch].begin(), direct[ch].end(), delayed[ch].begin())) << ch;
      EXPECT_EQ(rms(delayed[ch], n, n + d), 0.0) << ch;
    }
    for (std::size_t ch : {4u, 5u}) {
      EXPECT_EQ(rms(delayed[ch], 0, d), 0.0);
      EXPECT_TRUE(std::equal(direct[ch].begin(), direct[ch].end(), delayed[ch].begin() + d)) << ch;
    }
  }
}

TEST(MatrixDecoder, FlushEndsTheStream) {
  const std::vector<float> x = noise(100, 6);
  for (double delay : {0.0, 1.0}) {
    MatrixDecoder d = make_matrix_decoder(48000, delay);
    BedChannels out;
    flush_matrix(d, out);
    EXPECT_EQ(out[4].size(), delay == 0.0 ? 0u : 48u);
    flush_matrix(d, out);  // a second flush is empty, not an error
    for (const auto& ch : out) EXPECT_TRUE(ch.empty());
    EXPECT_EQ(test::message_of<std::runtime_error>([&] { process_matrix(d, x.data(), x.data(), x.size(), out); }),
              "matrix decoder cannot process after flush");
  }
  MatrixDecoder d = make_matrix_decoder(48000, 20.0);
  BedChannels out;
  EXPECT_EQ(test::message_of([&] { process_matrix(d, x.data(), nullptr, x.size(), out); }),
            "matrix decoder requires stereo input");
}

}  // namespace
}  // namespace tavrin
