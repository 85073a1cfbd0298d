#include "support/signals.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <numbers>
#include <stdexcept>

namespace tavrin::test {
namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;

// splitmix64: small, well mixed and identical everywhere (the standard
// library's distributions are not specified bit for bit).
struct Random {
  std::uint64_t state;
  std::uint64_t next() {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }  // [0, 1)
  double between(double lo, double hi) { return lo + (hi - lo) * uniform(); }
  double gauss() {
    const double u = 1.0 - uniform();  // (0, 1]: the logarithm stays finite
    return std::sqrt(-2.0 * std::log(u)) * std::cos(kTwoPi * uniform());
  }
};

// Klatt's formant resonator: unity gain at DC, so a cascade keeps its level.
struct Resonator {
  double a = 0, b = 0, c = 0, y1 = 0, y2 = 0;
  void tune(double freq, double bandwidth, double rate) {
    const double r = std::exp(-std::numbers::pi * bandwidth / rate);
    c = -r * r;
    b = 2.0 * r * std::cos(kTwoPi * freq / rate);
    a = 1.0 - b - c;
  }
  double operator()(double x) {
    const double y = a * x + b * y1 + c * y2;
    y2 = y1;
    y1 = y;
    return y;
  }
};

// Paul Kellet's three-pole approximation of a -3 dB/octave slope.
struct Pink {
  double b0 = 0, b1 = 0, b2 = 0;
  double operator()(double white) {
    b0 = 0.99765 * b0 + white * 0.0990460;
    b1 = 0.96300 * b1 + white * 0.2965164;
    b2 = 0.57000 * b2 + white * 1.0526913;
    return b0 + b1 + b2 + white * 0.1848;
  }
};

struct Raw {
  Channels channels;
  std::vector<std::size_t> attacks;
};

struct Span {
  std::uint32_t rate;
  std::size_t n;
  std::size_t at(double seconds) const { return static_cast<std::size_t>(std::lround(seconds * rate)); }
  double seconds() const { return static_cast<double>(n) / rate; }
};

Raw silence(const Span& s) { return {Channels(2, std::vector<double>(s.n, 0.0)), {}}; }

// A decaying partial from `start` on, made by rotating a phasor (a sine per
// sample would dominate the set's generation time). Stops once inaudible.
void add_decaying_partial(Raw& r, const Span& s, std::size_t start, double freq, double amp, double tau,
                          double phase, double gain_l, double gain_r) {
  const std::complex<double> step = std::exp(std::complex<double>(-1.0 / (tau * s.rate), kTwoPi * freq / s.rate));
  std::complex<double> z = std::polar(amp, phase);
  for (std::size_t i = start; i < s.n && std::norm(z) > 1e-10 * amp * amp; ++i, z *= step) {
    r.channels[0][i] += gain_l * z.imag();
    r.channels[1][i] += gain_r * z.imag();
  }
}

void scale_to_peak(Channels& c, double peak_dbfs) {
  double peak = 0.0;
  for (const auto& ch : c)
    for (double v : ch) peak = std::max(peak, std::fabs(v));
  if (peak == 0.0) return;
  const double g = std::pow(10.0, peak_dbfs / 20.0) / peak;
  for (auto& ch : c)
    for (double& v : ch) v *= g;
}

// Plucked-string notes: harmonics whose upper partials die away faster.
Raw plucked(const Span& s) {
  Raw r = silence(s);
  constexpr std::array notes{196.0, 246.9, 293.7, 392.0, 329.6, 261.6, 440.0, 349.2};
  Random rng{11};
  for (std::size_t k = 0;; ++k) {
    const std::size_t start = s.at(0.05 + 0.375 * static_cast<double>(k));
    if (start >= s.n) break;
    const double f0 = notes[k % notes.size()];
    const double pan = 0.5 + 0.35 * std::sin(1.3 * static_cast<double>(k));
    for (int h = 1; h <= 12 && h * f0 < 0.45 * s.rate; ++h) {
      add_decaying_partial(r, s, start, h * f0, std::pow(h, -1.2), 1.2 / (1.0 + 0.5 * h), kTwoPi * rng.uniform(),
                           1.0 - 0.4 * pan, 0.6 + 0.4 * pan);
    }
  }
  return r;
}

// Five held notes, eight harmonics each, with vibrato and a slow swell. The
// harmonics follow their note's vibrato exactly, so sin(h*theta) comes from
// the Chebyshev recurrence rather than a sine each.
Raw chord(const Span& s) {
  Raw r = silence(s);
  constexpr std::array notes{130.8, 164.8, 196.0, 246.9, 261.6};
  Random rng{17};
  for (std::size_t k = 0; k < notes.size(); ++k) {
    const double vib_phase = kTwoPi * rng.uniform(), vib_rate = rng.between(4.8, 6.2);
    const double gain_l = 0.5 + 0.5 * static_cast<double>(k) / notes.size(), gain_r = 1.5 - gain_l;
    double theta = kTwoPi * rng.uniform();
    for (std::size_t i = 0; i < s.n; ++i) {
      const double t = static_cast<double>(i) / s.rate;
      const double env = std::min(1.0, t / 0.2) * (0.75 + 0.25 * std::sin(kTwoPi * 0.4 * t + k));
      theta += kTwoPi * notes[k] * (1.0 + 0.004 * std::sin(kTwoPi * vib_rate * t + vib_phase)) / s.rate;
      const double s1 = std::sin(theta), c1 = std::cos(theta);
      double prev = 0.0, cur = s1, v = 0.0;
      for (int h = 1; h <= 8 && h * notes[k] < 0.45 * s.rate; ++h) {
        v += cur / h;
        const double next = 2.0 * c1 * cur - prev;
        prev = cur;
        cur = next;
      }
      r.channels[0][i] += gain_l * env * v;
      r.channels[1][i] += gain_r * env * v;
    }
  }
  return r;
}

// 20 Hz to 20 kHz, exponential in time, L and R in quadrature.
Raw sweep(const Span& s) {
  Raw r = silence(s);
  const double f0 = 20.0, f1 = 20000.0, len = s.seconds(), k = std::log(f1 / f0);
  for (std::size_t i = 0; i < s.n; ++i) {
    const double t = static_cast<double>(i) / s.rate;
    const double phase = kTwoPi * f0 * len / k * (std::exp(k * t / len) - 1.0);
    const double fade = std::min({1.0, t / 0.02, (len - t) / 0.02});
    r.channels[0][i] = fade * std::sin(phase);
    r.channels[1][i] = fade * std::cos(phase);
  }
  return r;
}

// Pink noise, the channels sharing part of it.
Raw pink(const Span& s) {
  Raw r = silence(s);
  Random rng{29};
  Pink common, left, right;
  for (std::size_t i = 0; i < s.n; ++i) {
    const double c = common(rng.between(-1.0, 1.0));
    r.channels[0][i] = 0.8 * c + 0.6 * left(rng.between(-1.0, 1.0));
    r.channels[1][i] = 0.8 * c + 0.6 * right(rng.between(-1.0, 1.0));
  }
  return r;
}

// A voice: a glottal pulse train with a wandering pitch, breath noise, four
// formants that change with each syllable, syllables with gaps and pauses.
Raw speech(const Span& s) {
  Raw r = silence(s);
  constexpr std::array<std::array<double, 4>, 5> vowels{{{730, 1090, 2440, 3400},
                                                         {270, 2290, 3010, 3500},
                                                         {300, 870, 2240, 3300},
                                                         {530, 1840, 2480, 3500},
                                                         {570, 840, 2410, 3400}}};
  constexpr std::array bandwidths{80.0, 100.0, 140.0, 180.0};
  Random rng{5};
  std::vector<double> env(s.n, 0.0);
  std::vector<std::size_t> vowel(s.n, 0);
  double t = 0.1;
  for (int syllable = 1; t < s.seconds(); ++syllable) {
    const double len = rng.between(0.12, 0.25);
    const std::size_t v = rng.next() % vowels.size();
    for (std::size_t i = s.at(t); i < std::min(s.n, s.at(t + len)); ++i) {
      const double u = static_cast<double>(i) / s.rate - t;
      env[i] = std::min({1.0, u / 0.02, (len - u) / 0.03});
      vowel[i] = v;
    }
    t += len + (syllable % 5 == 0 ? 0.3 : rng.between(0.04, 0.1));
  }
  std::array<Resonator, 4> formants;
  std::size_t tuned = vowels.size();
  const double glottal_pole = std::exp(-kTwoPi * 300.0 / s.rate);
  double phase = 0.0, glottal = 0.0, last = 0.0;
  for (std::size_t i = 0; i < s.n; ++i) {
    if (vowel[i] != tuned) {
      tuned = vowel[i];
      for (std::size_t f = 0; f < formants.size(); ++f) formants[f].tune(vowels[tuned][f], bandwidths[f], s.rate);
    }
    const double time = static_cast<double>(i) / s.rate;
    phase += (125.0 + 35.0 * std::sin(kTwoPi * 0.6 * time + 0.5)) / s.rate;
    double pulse = 0.0;
    if (phase >= 1.0) {
      phase -= 1.0;
      pulse = 1.0;
    }
    glottal = glottal_pole * glottal + (1.0 - glottal_pole) * pulse;
    double x = env[i] * (glottal + 0.002 * rng.gauss());
    for (auto& f : formants) x = f(x);
    // Radiation from the lips: a first difference.
    r.channels[0][i] = x - last;
    r.channels[1][i] = 0.85 * (x - last);
    last = x;
  }
  return r;
}

// Kick (a falling thump and a click) and snare (a noise burst over a tone)
// in turn, four hits a second.
Raw drums(const Span& s) {
  Raw r = silence(s);
  Random rng{41};
  for (std::size_t k = 0;; ++k) {
    const std::size_t start = s.at(0.1 + 0.25 * static_cast<double>(k));
    if (start >= s.n) break;
    r.attacks.push_back(start);
    const bool kick = k % 2 == 0;
    const double gain_l = kick ? 1.0 : 0.8, gain_r = 1.0;
    double phase = 0.0, last = 0.0;
    for (std::size_t i = start; i < std::min(s.n, start + s.at(0.22)); ++i) {
      const double t = static_cast<double>(i - start) / s.rate;
      const double noise = rng.gauss();
      double v;
      if (kick) {
        phase += kTwoPi * (45.0 + 75.0 * std::exp(-t / 0.03)) / s.rate;
        v = std::sin(phase) * std::exp(-t / 0.05) + 0.3 * noise * std::exp(-t / 0.002);
      } else {
        v = 0.5 * (noise - 0.5 * last) * std::exp(-t / 0.035) + 0.5 * std::sin(kTwoPi * 190.0 * t) * std::exp(-t / 0.03);
      }
      last = noise;
      r.channels[0][i] += gain_l * v;
      r.channels[1][i] += gain_r * v;
    }
  }
  return r;
}

// Groups of two to four very short bright clicks over silence: the signal
// on which noise spread ahead of an attack is easiest to hear.
Raw castanets(const Span& s) {
  Raw r = silence(s);
  // Times and colours from one generator, samples from another, so that the
  // pattern is the same at every rate.
  Random rng{23}, noise_rng{24};
  for (double t = 0.12; t < s.seconds();) {
    const std::uint64_t count = 2 + rng.next() % 3;
    for (std::uint64_t c = 0; c < count; ++c) {
      const std::size_t start = s.at(t);
      if (start >= s.n) break;
      r.attacks.push_back(start);
      const double amp = rng.between(0.6, 1.0), pan = rng.between(0.3, 0.7), ring = rng.between(2200.0, 3500.0);
      double last = 0.0;
      for (std::size_t i = start; i < std::min(s.n, start + s.at(0.006)); ++i) {
        const double u = static_cast<double>(i - start) / s.rate;
        const double noise = noise_rng.gauss();
        const double v = amp * (0.6 * (noise - last) * std::exp(-u / 0.0007) +
                                std::sin(kTwoPi * ring * u) * std::exp(-u / 0.0015));
        last = noise;
        r.channels[0][i] += (1.0 - pan) * v;
        r.channels[1][i] += pan * v;
      }
      t += rng.between(0.035, 0.07);
    }
    t += rng.between(0.35, 0.55);
  }
  return r;
}

// Bass notes between 41 and 110 Hz, four harmonics, each note released
// just before the next.
Raw bass(const Span& s) {
  Raw r = silence(s);
  constexpr std::array notes{41.2, 55.0, 73.4, 98.0, 110.0, 82.4, 61.7, 49.0};
  constexpr std::array partials{1.0, 0.5, 0.25, 0.12};
  constexpr double note_len = 0.375;
  for (std::size_t k = 0;; ++k) {
    const double t0 = 0.05 + note_len * static_cast<double>(k);
    const std::size_t start = s.at(t0);
    if (start >= s.n) break;
    for (std::size_t i = start; i < std::min(s.n, s.at(t0 + note_len)); ++i) {
      const double t = static_cast<double>(i - start) / s.rate;
      const double env = std::min({1.0, t / 0.008, (note_len - t) / 0.025}) * std::exp(-t / 0.6);
      double v = 0.0;
      for (std::size_t h = 0; h < partials.size(); ++h) v += partials[h] * std::sin(kTwoPi * (h + 1) * notes[k % notes.size()] * t);
      r.channels[0][i] = r.channels[1][i] = std::max(0.0, env) * v;
    }
  }
  return r;
}

// Bass, chord, drums and a bed of noise, each brought to a common peak first.
Raw mix(const Span& s) {
  Raw out = silence(s);
  constexpr std::array<std::pair<Raw (*)(const Span&), double>, 4> parts{
      {{bass, 0.3}, {chord, 0.25}, {drums, 0.8}, {pink, 0.05}}};
  for (const auto& [make, weight] : parts) {
    Raw part = make(s);
    scale_to_peak(part.channels, 0.0);
    for (std::size_t c = 0; c < 2; ++c)
      for (std::size_t i = 0; i < s.n; ++i) out.channels[c][i] += weight * part.channels[c][i];
    if (!part.attacks.empty()) out.attacks = part.attacks;
  }
  return out;
}

// Steady tones with a slow tremolo on the left, pink noise on the right.
Raw split(const Span& s) {
  Raw r = silence(s);
  constexpr std::array<std::array<double, 3>, 4> tones{{{330.0, 1.0, 0.3}, {495.0, 0.6, 0.45}, {1980.0, 0.3, 0.7},
                                                        {3960.0, 0.15, 0.9}}};  // Hz, level, tremolo rate
  Random rng{37};
  Pink noise;
  for (std::size_t i = 0; i < s.n; ++i) {
    const double t = static_cast<double>(i) / s.rate;
    double v = 0.0;
    for (const auto& [freq, level, tremolo] : tones)
      v += level * (0.8 + 0.2 * std::sin(kTwoPi * tremolo * t)) * std::sin(kTwoPi * freq * t);
    r.channels[0][i] = v;
    r.channels[1][i] = noise(rng.between(-1.0, 1.0));
  }
  return r;
}

struct Entry {
  const char* id;
  const char* description;
  Raw (*make)(const Span&);
  double peak_dbfs;
};

constexpr std::array<Entry, 10> kSignals{{
    {"plucked", "plucked-string notes, decaying harmonics", plucked, -4.0},
    {"chord", "sustained five-note chord, vibrato, swell", chord, -5.0},
    {"sweep", "log sweep 20 Hz - 20 kHz, L/R in quadrature", sweep, -6.0},
    {"pink", "pink noise, partly correlated channels", pink, -6.0},
    {"speech", "glottal pulses through four formants, syllables, pauses", speech, -4.0},
    {"drums", "kick and snare, four hits a second", drums, -3.0},
    {"castanets", "groups of short bright clicks over silence", castanets, -3.0},
    {"bass", "bass line 41-110 Hz, four harmonics", bass, -4.0},
    {"mix", "bass, chord, drums and noise", mix, -3.0},
    {"split", "tones on the left, pink noise on the right", split, -5.0},
}};

}  // namespace

std::vector<std::string> signal_ids() {
  std::vector<std::string> ids;
  for (const auto& e : kSignals) ids.emplace_back(e.id);
  return ids;
}

TestSignal make_signal(std::string_view id, std::uint32_t rate, double seconds) {
  const auto entry = std::find_if(kSignals.begin(), kSignals.end(), [&](const Entry& e) { return id == e.id; });
  if (entry == kSignals.end()) throw std::invalid_argument("unknown test signal: " + std::string(id));
  const Span span{rate, static_cast<std::size_t>(std::lround(seconds * rate))};
  Raw raw = entry->make(span);
  scale_to_peak(raw.channels, entry->peak_dbfs);
  TestSignal out{entry->id, entry->description, rate, std::move(raw.channels), {}};
  const std::size_t margin = span.at(0.005);
  for (std::size_t a : raw.attacks)
    if (a >= margin && a + margin <= span.n) out.attacks.push_back(a);
  return out;
}

std::vector<TestSignal> make_signal_set(std::uint32_t rate, double seconds) {
  std::vector<TestSignal> set;
  for (const auto& e : kSignals) set.push_back(make_signal(e.id, rate, seconds));
  return set;
}

}  // namespace tavrin::test
