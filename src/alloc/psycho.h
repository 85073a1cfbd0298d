#pragma once
// Tavrin Psycho v2: a per-band perceptual description of one frame of subband
// samples, used by the bit allocators to decide where bits are spent.
#include <cstddef>
#include <vector>

namespace tavrin {

// Eleven parameters, in this order. The member defaults are the stereo
// defaults of the rate-optimized ADPCM encoder.
struct PsychoConfig {
  double ath_floor = 1e-8;               // > 0, relative to the frame's peak band energy
  double masking_strength = 0.2;         // >= 0, simultaneous (spreading) masking
  double lower_spreading_slope = 7.0;    // dB per band, masker below the band
  double upper_spreading_slope = 11.0;   // dB per band, masker above the band
  double tonality_weight = 0.65;
  double transient_weight = 0.55;
  double high_band_floor = 0.55;         // (0, 1], weight multiplier at band 31
  double temporal_masking_strength = 0.18;  // >= 0
  double temporal_decay = 0.55;          // 0..1
  double attack_release = 0.8;           // 0..1
  double cross_channel_strength = 0.08;  // >= 0
};

PsychoConfig stereo_psycho_config();

struct PsychoBandRecord {
  double energy = 0.0;
  double rms = 0.0;
  double peak = 0.0;
  double tonality = 0.0;
  double crest = 0.0;
  double attack = 0.0;
  double mask = 0.0;
  double temporal_term = 0.0;
  double cross_channel_term = 0.0;
  double weight = 0.0;
};

// Four subframes; in each, channel c band b at c * 32 + b.
struct PsychoAnalysis {
  std::vector<std::vector<PsychoBandRecord>> subframes;
};

// Energies of subframe 3 of the previous frame, one vector of 32 per channel.
// Owned by the stream; starts invalid.
struct PsychoTemporalState {
  std::vector<std::vector<double>> energies;
  bool valid = false;
};

inline constexpr std::size_t kPsychoSubframes = 4;
inline constexpr std::size_t kPsychoBands = 32;
inline constexpr std::size_t kPsychoBlockSamples = 1024;

// Throws std::invalid_argument with the exact message for a bad channel
// count or configuration.
void validate_psycho(std::size_t channels, const PsychoConfig& config);

// channels: one block of 1024 subband samples each (subframe s, sample k,
// band b at s * 256 + k * 32 + b). state may be null; when given it is read
// (if valid and of matching channel count) and then replaced by this
// frame's subframe-3 energies.
PsychoAnalysis analyse_psycho(const std::vector<const double*>& channels, PsychoTemporalState* state,
                              const PsychoConfig& config);

}  // namespace tavrin
