#pragma once
// A stereo signal made into a 5.1 bed, block by block: the matrix decoder,
// then bass management when it is on. Every pass over an input opens a fresh
// stage, so each pass sees exactly the same bed.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "matrix/bass_manager.h"
#include "matrix/matrix_decoder.h"

namespace tavrin {

struct BedSettings {
  std::uint32_t sample_rate = 0;
  double rear_delay_ms = 20.0;
  bool bass_management = false;
  double crossover_hz = 80.0;
  double lfe_gain_db = 0.0;
};

struct BedStage {
  MatrixDecoder decoder;
  std::optional<BassManager> bass;
  std::vector<float> left, right;  // the block as the decoder takes it
  BedChannels bed;
};

BedStage open_bed_stage(const BedSettings& settings);

// The bed of n stereo samples; valid until the next call.
const BedChannels& decode_bed(BedStage& stage, const double* left, const double* right, std::size_t n);
// The surround tail the rear delay still holds (empty when there is none).
const BedChannels& flush_bed(BedStage& stage);

// The largest absolute sample of all six channels.
float bed_peak(const BedChannels& bed);

}  // namespace tavrin
