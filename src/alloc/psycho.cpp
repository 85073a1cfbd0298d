#include "alloc/psycho.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

namespace tavrin {

namespace {

constexpr std::size_t kSamplesPerBand = 8;
constexpr double kTiny = 1e-30;

using BandArray = std::array<double, kPsychoBands>;

// Band b of sample k in subframe s.
inline double sample_at(const double* block, std::size_t s, std::size_t k, std::size_t b) {
  return block[s * 256 + k * 32 + b];
}

// Absolute threshold of hearing per band on a fixed 750 Hz grid, normalised
// so that the most sensitive band is 1.
BandArray absolute_threshold() {
  BandArray ath{};
  for (std::size_t b = 0; b < kPsychoBands; ++b) {
    const double f = std::max(0.02, (static_cast<double>(b) + 0.5) * 750.0 / 1000.0);
    double db = 3.64 * std::pow(f, -0.8) - 6.5 * std::exp(-0.6 * (f - 3.3) * (f - 3.3)) + 0.001 * f * f * f * f;
    db = std::max(std::min(db, 80.0), -10.0);
    ath[b] = std::pow(10.0, db / 10.0);
  }
  const double smallest = *std::min_element(ath.begin(), ath.end());
  for (double& v : ath) v /= smallest;
  return ath;
}

// |<a, b>| / sqrt(|a|^2 |b|^2) over the eight samples of one band.
double band_correlation(const double* a, const double* b, std::size_t s, std::size_t band) {
  double ab = 0.0, aa = 0.0, bb = 0.0;
  for (std::size_t k = 0; k < kSamplesPerBand; ++k) {
    const double x = sample_at(a, s, k, band);
    const double y = sample_at(b, s, k, band);
    ab += x * y;
    aa += x * x;
    bb += y * y;
  }
  const double root = std::sqrt(aa * bb);
  if (root <= kTiny) return 0.0;
  return std::min(1.0, std::abs(ab) / root);
}

}  // namespace

PsychoConfig stereo_psycho_config() { return PsychoConfig{}; }

void validate_psycho(std::size_t channels, const PsychoConfig& c) {
  if (channels < 1 || channels > 5) throw std::invalid_argument("Tavrin Psycho requires 1..5 channels");
  // Written as negated comparisons so that NaN is rejected too.
  if (!(c.ath_floor > 0.0)) throw std::invalid_argument("invalid psycho ATH floor");
  if (!(c.masking_strength >= 0.0)) throw std::invalid_argument("invalid psycho masking strength");
  if (!(c.high_band_floor > 0.0 && c.high_band_floor <= 1.0))
    throw std::invalid_argument("invalid psycho high-band floor");
  if (!(c.temporal_masking_strength >= 0.0) || !(c.temporal_decay >= 0.0 && c.temporal_decay <= 1.0) ||
      !(c.attack_release >= 0.0 && c.attack_release <= 1.0) || !(c.cross_channel_strength >= 0.0))
    throw std::invalid_argument("invalid Tavrin Psycho v2 temporal/cross-channel controls");
}

PsychoAnalysis analyse_psycho(const std::vector<const double*>& channels, PsychoTemporalState* state,
                              const PsychoConfig& config) {
  const std::size_t nch = channels.size();
  validate_psycho(nch, config);

  PsychoAnalysis out;
  out.subframes.assign(kPsychoSubframes, std::vector<PsychoBandRecord>(nch * kPsychoBands));

  // Step 1: band statistics, and the frame's largest band energy.
  double emax = 0.0;
  for (std::size_t s = 0; s < kPsychoSubframes; ++s) {
    for (std::size_t c = 0; c < nch; ++c) {
      const double* block = channels[c];
      for (std::size_t b = 0; b < kPsychoBands; ++b) {
        std::array<double, kSamplesPerBand> x{};
        for (std::size_t k = 0; k < kSamplesPerBand; ++k) x[k] = sample_at(block, s, k, b);
        double sum_sq = 0.0, peak = 0.0;
        for (double v : x) {
          sum_sq += v * v;
          peak = std::max(peak, std::abs(v));
        }
        double p = 0.0, a = 0.0, bb = 0.0;
        for (std::size_t k = 1; k < kSamplesPerBand; ++k) {
          p += x[k - 1] * x[k];
          a += x[k - 1] * x[k - 1];
          bb += x[k] * x[k];
        }
        const double root = std::sqrt(a * bb);
        PsychoBandRecord& r = out.subframes[s][c * kPsychoBands + b];
        r.energy = sum_sq / static_cast<double>(kSamplesPerBand);
        r.rms = std::sqrt(r.energy);
        r.peak = peak;
        r.tonality = root > kTiny ? std::min(1.0, std::abs(p) / root) : 0.0;
        const double crest_ratio = r.rms <= kTiny ? 1.0 : peak / r.rms;
        r.crest = std::clamp((crest_ratio - 1.45) / 2.55, 0.0, 1.0);
        emax = std::max(emax, r.energy);
      }
    }
  }

  const auto store_state = [&](bool silent) {
    if (state == nullptr) return;
    state->energies.assign(nch, std::vector<double>(kPsychoBands, 0.0));
    if (!silent) {
      for (std::size_t c = 0; c < nch; ++c)
        for (std::size_t b = 0; b < kPsychoBands; ++b)
          state->energies[c][b] = out.subframes[kPsychoSubframes - 1][c * kPsychoBands + b].energy;
    }
    state->valid = true;
  };

  // Step 2: digital silence leaves every record at zero.
  if (emax <= kTiny) {
    out.subframes.assign(kPsychoSubframes, std::vector<PsychoBandRecord>(nch * kPsychoBands));
    store_state(true);
    return out;
  }

  // Step 3: absolute threshold, and the spreading attenuation per distance,
  // computed once here rather than per band pair.
  // The threshold depends on nothing but the band: worked out once.
  static const BandArray ath = absolute_threshold();
  // spread_upper_reversed[31 - d] is the attenuation at distance d above.
  BandArray spread_lower{}, spread_upper_reversed{};
  for (std::size_t d = 1; d < kPsychoBands; ++d) {
    spread_lower[d] = std::pow(10.0, -(config.lower_spreading_slope * static_cast<double>(d)) / 10.0);
    spread_upper_reversed[kPsychoBands - 1 - d] =
        std::pow(10.0, -(config.upper_spreading_slope * static_cast<double>(d)) / 10.0);
  }

  bool history = false;
  if (state != nullptr && state->valid && state->energies.size() == nch) {
    history = std::all_of(state->energies.begin(), state->energies.end(),
                          [](const std::vector<double>& v) { return v.size() == kPsychoBands; });
  }

  const double floor = emax * 1e-5;
  const double eps = emax * 1e-14;
  const double ath_scale = emax * config.ath_floor;
  const double cross_scale = nch >= 2 ? config.cross_channel_strength / static_cast<double>(nch - 1) : 0.0;

  // Step 4: thresholds and weights.
  for (std::size_t s = 0; s < kPsychoSubframes; ++s) {
    // The correlation of a pair of channels is the same seen from either
    // side, so each pair is measured once: correlation[(c * 5 + o) * 32 + b].
    // Only pairs of distinct channels are ever read, and those are all
    // written below, so the array is left uninitialised.
    std::array<double, 5 * 5 * kPsychoBands> correlation;
    for (std::size_t c = 0; c < nch; ++c) {
      for (std::size_t o = c + 1; o < nch; ++o) {
        for (std::size_t b = 0; b < kPsychoBands; ++b) {
          const double v = band_correlation(channels[c], channels[o], s, b);
          correlation[(c * 5 + o) * kPsychoBands + b] = v;
          correlation[(o * 5 + c) * kPsychoBands + b] = v;
        }
      }
    }
    for (std::size_t c = 0; c < nch; ++c) {
      PsychoBandRecord* rec = &out.subframes[s][c * kPsychoBands];
      BandArray masker{};
      for (std::size_t j = 0; j < kPsychoBands; ++j) masker[j] = rec[j].energy * (1.0 - 0.35 * rec[j].tonality);

      // Every band's spreading sum at once, masker by masker: each band
      // still adds its terms in masker order (those below it, then those
      // above), and the inner loops run over contiguous bands.
      BandArray spread{};
      for (std::size_t j = 0; j < kPsychoBands; ++j) {
        const double m = masker[j];
        for (std::size_t b = 0; b < j; ++b) spread[b] += m * spread_upper_reversed[kPsychoBands - 1 - j + b];
        for (std::size_t b = j + 1; b < kPsychoBands; ++b) spread[b] += m * spread_lower[b - j];
      }

      for (std::size_t b = 0; b < kPsychoBands; ++b) {
        PsychoBandRecord& r = rec[b];
        const double e = r.energy;

        bool has_prev = false;
        double ep = 0.0;
        if (s > 0) {
          has_prev = true;
          ep = out.subframes[s - 1][c * kPsychoBands + b].energy;
        } else if (history) {
          has_prev = true;
          ep = state->energies[c][b];
        }

        double attack = 0.0;
        if (has_prev && ep > kTiny) {
          // Four octaves of energy rise (about 12 dB) count as a full onset.
          attack = e > ep ? std::clamp(std::log2(std::max(e / ep, 1.0)) * 0.25, 0.0, 1.0) : 0.0;
        } else {
          attack = e > floor ? 1.0 : 0.0;
        }
        r.attack = attack;

        r.temporal_term = has_prev ? config.temporal_masking_strength * config.temporal_decay *
                                         (1.0 - attack * config.attack_release) * ep
                                   : 0.0;

        if (nch >= 2) {
          double x = 0.0;
          for (std::size_t o = 0; o < nch; ++o) {
            if (o == c) continue;
            x += correlation[(c * 5 + o) * kPsychoBands + b] * out.subframes[s][o * kPsychoBands + b].energy;
          }
          r.cross_channel_term = x * cross_scale;
        }

        r.mask = ath_scale * ath[b] + spread[b] * config.masking_strength + r.temporal_term + r.cross_channel_term;
        const double ratio = std::max(e / (r.mask + eps), 1e-6);

        const double tonal = 1.0 + r.tonality * config.tonality_weight;
        const double transient = 1.0 + std::max(r.crest, attack) * config.transient_weight;
        // Interpolated so that band 31 lands exactly on the floor.
        const double t = b <= 20 ? 0.0 : static_cast<double>(b - 20) / 11.0;
        const double high = (1.0 - t) + t * config.high_band_floor;
        r.weight = std::sqrt(ratio) * high * tonal * transient;
      }
    }
  }

  // Step 5.
  store_state(false);
  return out;
}

}  // namespace tavrin
