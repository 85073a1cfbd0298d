#include "matrix/bed.h"

#include <algorithm>
#include <cmath>

namespace tavrin {

BedStage open_bed_stage(const BedSettings& s) {
  BedStage stage;
  stage.decoder = make_matrix_decoder(s.sample_rate, s.rear_delay_ms);
  if (s.bass_management) stage.bass = make_bass_manager(s.sample_rate, s.crossover_hz, s.lfe_gain_db);
  return stage;
}

const BedChannels& decode_bed(BedStage& stage, const double* left, const double* right, std::size_t n) {
  stage.left.resize(n);
  stage.right.resize(n);
  for (std::size_t i = 0; i < n; ++i) {
    stage.left[i] = static_cast<float>(left[i]);
    stage.right[i] = static_cast<float>(right[i]);
  }
  process_matrix(stage.decoder, stage.left.data(), stage.right.data(), n, stage.bed);
  if (stage.bass) process_bass(*stage.bass, stage.bed);
  return stage.bed;
}

const BedChannels& flush_bed(BedStage& stage) {
  flush_matrix(stage.decoder, stage.bed);
  // The tail runs through the crossover too, so its filters stay continuous.
  if (stage.bass) process_bass(*stage.bass, stage.bed);
  return stage.bed;
}

float bed_peak(const BedChannels& bed) {
  float peak = 0.0f;
  for (const auto& channel : bed) {
    for (float x : channel) peak = std::max(peak, std::abs(x));
  }
  return peak;
}

}  // namespace tavrin
