#pragma once
// A fixed set of generated stereo test signals for judging coding quality:
// tonal, noisy, speech-like and transient material, each a few seconds long,
// peaking between -3 and -6 dBFS. Every signal is made from fixed seeds with
// its own small random generator, so the same id, rate and length give the
// same samples on every platform and in every run.
//
// Transient signals also carry the sample position of each attack (the
// first sample of the hit, in both channels), for measuring pre-echo.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/measure.h"

namespace tavrin::test {

struct TestSignal {
  std::string id;                    // short name, e.g. "castanets"
  std::string description;           // one line for tables and logs
  std::uint32_t rate = 48000;        // Hz
  Channels channels;                 // L, R; full scale is +-1.0
  std::vector<std::size_t> attacks;  // ascending; empty for signals without sharp onsets
};

// Every id, in table order: plucked, chord, sweep, pink, speech, drums,
// castanets, bass, mix, split.
std::vector<std::string> signal_ids();

// One signal of the set; throws std::invalid_argument for an unknown id.
// Attacks closer than 5 ms to either end are left out.
TestSignal make_signal(std::string_view id, std::uint32_t rate, double seconds = 3.0);

// The whole set in signal_ids() order.
std::vector<TestSignal> make_signal_set(std::uint32_t rate, double seconds = 3.0);

}  // namespace tavrin::test
