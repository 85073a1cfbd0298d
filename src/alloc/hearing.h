#pragma once
// Published curves of hearing that the 24+8 encoder's masks and the test
// suite's independent noise-to-mask measure both stand on. What each builds
// on them (offsets, tonality, how masks combine) stays its own.
#include <cmath>

namespace tavrin {

// Critical-band rate in Bark at `hz` (Zwicker).
inline double bark(double hz) {
  return 13.0 * std::atan(0.00076 * hz) + 3.5 * std::atan((hz / 7500.0) * (hz / 7500.0));
}

// Schroeder's spreading function: what a masker leaves, in dB, in a band dz
// Bark above it (dz < 0: below it).
inline double schroeder_spreading_db(double dz) {
  const double d = dz + 0.474;
  return 15.81 + 7.5 * d - 17.5 * std::sqrt(1.0 + d * d);
}

// Terhardt's threshold in quiet, dB SPL, at `khz`.
inline double threshold_in_quiet_db(double khz) {
  return 3.64 * std::pow(khz, -0.8) - 6.5 * std::exp(-0.6 * (khz - 3.3) * (khz - 3.3)) + 0.001 * std::pow(khz, 4.0);
}

}  // namespace tavrin
