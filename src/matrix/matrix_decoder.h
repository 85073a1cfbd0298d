#pragma once
// The streaming matrix decoder: a stereo pair becomes an L/C/R/S bed. The
// common signal of strongly correlated inputs is steered into the centre,
// the difference signal of strongly anti-correlated ones into the surround,
// and the surround is delayed by the rear delay. Steering state carries from
// block to block, so block boundaries never change the output.
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace tavrin {

// The six bed channels, 5.1 speaker order: L, R, C, LFE, Ls, Rs.
inline constexpr std::size_t kBedChannels = 6;
inline constexpr std::size_t kBedLfe = 3;
using BedChannels = std::array<std::vector<float>, kBedChannels>;

struct MatrixStats {
  float peak_centre = 0.0f;    // largest centre steering reached so far
  float peak_surround = 0.0f;  // largest surround steering reached so far
  double rear_delay_ms = 0.0;
};

struct MatrixDecoder {
  std::uint32_t sample_rate = 0;
  double rear_delay_ms = 0.0;
  double fs = 48000.0;
  double beta = 0.0;  // power smoothing, 20 ms
  double p_ll = 1e-12;
  double p_rr = 1e-12;
  double p_lr = 0.0;
  double g_c = 0.0;
  double g_s = 0.0;
  float peak_c = 0.0f;
  float peak_s = 0.0f;
  double reported_delay_ms = 20.0;
  // Ballistics coefficients, derived once from the rate.
  double attack = 0.0;
  double release = 0.0;
  std::vector<float> delay_line;  // D samples; empty when D is 0
  std::size_t delay_index = 0;
  bool flushed = false;
};

// "matrix sample rate must be > 0", "matrix rear delay must be within
// 0..40 ms" (std::invalid_argument).
MatrixDecoder make_matrix_decoder(std::uint32_t sample_rate, double rear_delay_ms);

// The delay line's length: the rear delay in whole samples, nearest.
std::size_t matrix_delay_samples(std::uint32_t sample_rate, double rear_delay_ms);

// Decodes n stereo samples into `out`, each channel resized to n.
// "matrix decoder requires stereo input" for a null channel,
// "matrix decoder cannot process after flush" once flushed.
MatrixStats process_matrix(MatrixDecoder& decoder, const float* left, const float* right, std::size_t n,
                           BedChannels& out);

// Empties the delay line: D samples of silence on L, R, C and LFE with the
// held surround on Ls and Rs, oldest first; nothing when D is 0 or already
// flushed. The decoder takes no further input.
MatrixStats flush_matrix(MatrixDecoder& decoder, BedChannels& out);

MatrixStats matrix_stats(const MatrixDecoder& decoder);

}  // namespace tavrin
