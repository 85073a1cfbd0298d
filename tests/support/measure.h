#pragma once
// Judging decoded audio against its source, and the plain facts a stream's
// size and the program's summary must match.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "input/sample_format.h"

namespace tavrin::test {

// Samples from a source sample to its decoded counterpart in every stream.
inline constexpr std::size_t kCodecDelay = 480;

using Channels = std::vector<std::vector<double>>;

struct Match {
  double gain_db = 0.0;  // least-squares gain of decoded against source
  double snr_db = 0.0;   // of the plain difference; 300 when it is exact
  double decoded_peak = 0.0;
};

// Compares decoded[i + delay] with source[i] wherever both exist.
Match compare(const std::vector<double>& source, const std::vector<float>& decoded, std::size_t delay);

// The delay at which decoded best matches source (largest SNR), searched in
// [from, to].
std::size_t best_delay(const std::vector<double>& source, const std::vector<float>& decoded, std::size_t from,
                       std::size_t to);

// The size of a CBR stream of `samples` samples per channel: its frames of
// 1024 samples sum to floor(frames * bitrate * 1024 / (8 * rate)) bytes.
std::uint64_t expected_stream_bytes(std::uint32_t rate, std::uint32_t bitrate, std::size_t samples);

// What an input format holds of these samples (what the encoder sees).
Channels as_stored(const Channels& channels, SampleFormat fmt);

std::vector<std::string> lines(const std::string& text);

}  // namespace tavrin::test
