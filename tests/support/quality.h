#pragma once
// Perceptual measures of decoded audio against its source, independent of
// the encoder's own psychoacoustic model, and a round trip through the real
// program and ffmpeg that applies them to the generated test signals.
//
// Noise-to-mask ratio (NMR), a Johnston-style model:
//  - 2048-sample periodic-Hann frames, hop 1024, of the source and of the
//    coding error (decoded / gain - source, the gain being the least-squares
//    gain of decoded against source, so a level change alone is no noise);
//  - power scaled so that a full-scale sine has band energy 1 (0 dB), which
//    is placed at 96 dB SPL;
//  - bins grouped into critical bands one Bark wide (Zwicker's formula);
//  - the source's band energies spread with Schroeder's spreading function,
//    normalised so a spectrum flat across bands spreads to itself;
//  - lowered by an offset between 5.5 dB (noise-like) and 14.5 + b dB
//    (tonal, b = 1-based band index), chosen per band by the spectral
//    flatness of the band and its neighbours (-60 dB flatness and below
//    counts as fully tonal);
//  - never below the absolute threshold of hearing (Terhardt's curve, its
//    minimum within the band).
// A frame's NMR is the mean over bands of error energy / masking threshold;
// the total is 10 log10 of the mean of that over frames, so a few badly
// coded frames show rather than averaging away. Below 0 dB the noise is
// masked. Results agree with the shared roundtrip tool within a few tenths
// of a dB (its model is the same kind).
//
// Pre-echo: for each attack, the error energy in the 5 ms before it over the
// source's energy in the 5 ms from it, the ratios averaged (linearly, so the
// worst attacks dominate) and given in dB.
//
// A signal's figures combine its channels by averaging the linear ratios
// (noise-to-signal for SNR, noise-to-mask for NMR, pre-echo ratios), so each
// channel counts equally whatever its level.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "support/measure.h"
#include "support/signals.h"

namespace tavrin::test {

// Where a ratio has no noise at all: the floor of NMR and pre-echo in dB.
inline constexpr double kNoNoiseDb = -300.0;

inline constexpr double kNotMeasured = std::numeric_limits<double>::quiet_NaN();

struct ChannelQuality {
  double gain_db = kNotMeasured;
  double snr_db = kNotMeasured;               // 300 when exact
  double nmr_db = kNotMeasured;
  double nmr_frames_over_pct = kNotMeasured;  // frames whose worst band's noise exceeds its mask
  double pre_echo_db = kNotMeasured;          // stays NaN without attacks
};

struct Quality {
  std::vector<ChannelQuality> channels;
  double snr_db = kNotMeasured;
  double nmr_db = kNotMeasured;
  double pre_echo_db = kNotMeasured;
};

struct NmrResult {
  double nmr_db = kNoNoiseDb;
  double frames_over_pct = 0.0;
};

// decoded[i + delay] / gain - source[i] over the samples both have (the raw
// difference when the gain is below -60 dB, where dividing by it would only
// magnify the decoded signal).
std::vector<double> coding_error(const std::vector<double>& source, const std::vector<float>& decoded,
                                 std::size_t delay);

// NMR of `error` against the masking threshold of `source` (equally long,
// or the shorter length is used).
NmrResult noise_to_mask(const std::vector<double>& source, const std::vector<double>& error, std::uint32_t rate);

// Pre-echo in dB, NaN when no attack has 5 ms of signal on both sides and a
// source that is not silent after it.
double pre_echo_db(const std::vector<double>& source, const std::vector<double>& error, std::uint32_t rate,
                   const std::vector<std::size_t>& attacks);

// Every measure of every channel, and the channels combined.
Quality measure_quality(const Channels& source, const std::vector<std::vector<float>>& decoded, std::size_t delay,
                        std::uint32_t rate, const std::vector<std::size_t>& attacks = {});

// ---- Round trip through the program and ffmpeg ------------------------------

struct RoundTrip {
  bool ok = false;
  std::string problem;  // why not ok: the encoder's or decoder's complaint
  Quality quality;
};

// Writes the signal to `dir` as a 24-bit WAVE, encodes it with `encoder` at
// `kbps` plus `extra_args`, decodes with ffmpeg and measures the decoded
// audio against what the WAVE holds. `tag` keeps the files of different
// option sets apart.
RoundTrip round_trip(const std::filesystem::path& encoder, const TestSignal& signal, int kbps,
                     const std::vector<std::string>& extra_args, const std::filesystem::path& dir,
                     const std::string& tag = "a");

// ---- Tables -----------------------------------------------------------------

// The median of the values that are not NaN (NaN when there are none).
double median(std::vector<double> values);

// One line per signal: SNR, NMR and pre-echo of A; with B (same length as A)
// also B's and the differences B - A; then the median NMR of each and,
// with B, the largest differences over the signals. NaN prints as "-".
std::string format_quality_table(const std::vector<std::string>& ids, const std::vector<Quality>& a,
                                 const std::vector<Quality>& b = {});

}  // namespace tavrin::test
