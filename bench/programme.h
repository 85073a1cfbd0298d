#pragma once
// Generated programme material for the benchmarks and the quality script:
// deterministic, music-like, a different instrument on every speaker, so
// that speed, memory and quality are measured on something an encoder meets
// in practice rather than on noise or a single tone.
//
//   stereo: tones whose levels drift, a little noise, the channels differing
//   5.1 (file order L R C LFE SL SR):
//     L    a plucked, piano-like line (decaying harmonics, a note every 0.4 s)
//     R    sustained strings (a three-note chord with vibrato and a swell)
//     C    a voice-like part (a gliding pulse through two formants, syllables)
//     LFE  bass notes and a kick drum on the beat
//     SL   ambience (soft noise and a pad)
//     SR   percussion (hi-hat and shaker bursts)
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

inline constexpr double kTwoPi = 6.283185307179586;

// A small deterministic noise source (an LCG), the same on every platform.
struct Noise {
  std::uint64_t state = 0x9E3779B97F4A7C15ull;
  double next() {  // uniform in [-0.5, 0.5)
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<double>(state >> 11) / 9007199254740992.0 - 0.5;
  }
};

// One sample frame of the programme at time index n, into `out` (file
// order). `state` carries the noise sources and filters between calls, so
// frames must be made in order.
struct Programme {
  unsigned channels = 2;
  double rate = 48000.0;
  Noise noise[4];
  double ambience_lp = 0.0, hat_hp_prev_in = 0.0, hat_hp = 0.0;

  void stereo(std::uint64_t n, double* out) {
    const double t = static_cast<double>(n) / rate;
    const double tones[][3] = {{110.0, 0.20, 0.13}, {440.0, 0.12, 0.29}, {1250.0, 0.06, 0.07}, {5300.0, 0.02, 0.41}};
    for (unsigned c = 0; c < 2; ++c) {
      double v = 0.0;
      for (const auto& tone : tones) {
        const double level = tone[1] * (0.6 + 0.4 * std::sin(kTwoPi * tone[2] * t + c));
        v += level * std::sin(kTwoPi * tone[0] * (1.0 + 0.002 * c) * t);
      }
      out[c] = v + 0.01 * noise[0].next();  // one source, taken in channel order
    }
  }

  double piano(double t) const {
    static const double notes[] = {261.63, 329.63, 392.0, 523.25, 493.88, 392.0, 349.23, 293.66};
    const double beat = 0.4;
    const auto k = static_cast<std::uint64_t>(t / beat);
    const double since = t - static_cast<double>(k) * beat;
    const double f = notes[k % 8];
    double v = 0.0;
    for (int h = 1; h <= 6; ++h) v += std::exp(-since * (1.5 + 1.2 * h)) / h * std::sin(kTwoPi * f * h * since);
    return 0.22 * v;
  }

  double strings(double t) const {
    const double chord[] = {196.0, 246.94, 293.66};
    const double swell = 0.7 + 0.3 * std::sin(kTwoPi * 0.11 * t);
    double v = 0.0;
    for (int i = 0; i < 3; ++i) {
      const double vib = 0.003 * std::sin(kTwoPi * (5.0 + 0.3 * i) * t);
      const double phase = kTwoPi * chord[i] * (t + vib / (kTwoPi * 5.0));
      for (int h = 1; h <= 7; ++h) v += std::sin(h * phase) / (h * h);
    }
    return 0.09 * swell * v;
  }

  double voice(double t) const {
    const double f0 = 150.0 + 40.0 * std::sin(kTwoPi * 0.3 * t);
    const double phase = kTwoPi * (150.0 * t - 40.0 / (kTwoPi * 0.3) * std::cos(kTwoPi * 0.3 * t));
    double v = 0.0;
    for (int h = 1; h * f0 < 3500.0; ++h) {
      const double f = h * f0;
      const double formant = std::exp(-std::pow((f - 700.0) / 250.0, 2)) + 0.6 * std::exp(-std::pow((f - 1800.0) / 350.0, 2));
      v += (0.15 + formant) / h * std::sin(h * phase);
    }
    const double syllable = std::pow(std::max(0.0, std::sin(kTwoPi * 2.0 * t)), 0.5);
    return 0.18 * syllable * v;
  }

  double lfe(double t) const {
    static const double bass[] = {55.0, 55.0, 73.42, 65.41};
    const double beat = 0.5;
    const auto k = static_cast<std::uint64_t>(t / beat);
    const double since = t - static_cast<double>(k) * beat;
    const double kick = std::exp(-since * 14.0) * std::sin(kTwoPi * (48.0 * since + 30.0 * (1.0 - std::exp(-since * 25.0)) / 25.0));
    const double note = bass[(k / 2) % 4];
    return 0.45 * kick + 0.3 * std::sin(kTwoPi * note * t);
  }

  double ambience(double t) {
    ambience_lp += 0.05 * (noise[2].next() - ambience_lp);
    const double pad = std::sin(kTwoPi * 220.0 * t) * 0.03 + std::sin(kTwoPi * 330.5 * t) * 0.02;
    return 0.6 * ambience_lp + pad * (0.6 + 0.4 * std::sin(kTwoPi * 0.07 * t));
  }

  double percussion(double t) {
    const double x = noise[3].next();
    hat_hp = 0.85 * (hat_hp + x - hat_hp_prev_in);  // high-passed noise
    hat_hp_prev_in = x;
    const double step = 0.125;
    const auto k = static_cast<std::uint64_t>(t / step);
    const double since = t - static_cast<double>(k) * step;
    const double hat = std::exp(-since * (k % 4 == 2 ? 18.0 : 60.0));
    return 0.5 * hat * hat_hp;
  }

  void surround(std::uint64_t n, double* out) {
    const double t = static_cast<double>(n) / rate;
    out[0] = piano(t);
    out[1] = strings(t);
    out[2] = voice(t);
    out[3] = lfe(t);
    out[4] = ambience(t);
    out[5] = percussion(t);
  }

  void frame(std::uint64_t n, double* out) {
    if (channels == 6) {
      surround(n, out);
    } else {
      stereo(n, out);
    }
  }
};

inline void put_le(std::vector<char>& out, std::uint64_t value, unsigned bytes) {
  for (unsigned i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFFu));
}

// A 24-bit WAVE file of `seconds` of the programme (WAVEFORMATEXTENSIBLE
// with the side-surround mask for 5.1; RF64 sizes are not needed below 4 GB).
// Long files repeat the first `period` seconds so that they are quick to
// make; an encoder's memory and speed do not depend on the repetition.
inline void write_programme_wav(const std::string& path, unsigned channels, std::uint32_t rate, unsigned seconds,
                                unsigned period = 60) {
  std::ofstream out(path, std::ios::binary);
  if (!out) throw std::runtime_error("cannot create " + path);
  constexpr unsigned kBytes = 3;
  const std::uint64_t data_bytes = std::uint64_t{seconds} * rate * channels * kBytes;
  if (data_bytes > 0xFFFFFFFFull - 80) throw std::runtime_error("programme too long for a plain WAVE file");
  std::vector<char> header;
  const bool extensible = channels > 2;
  const unsigned fmt_size = extensible ? 40 : 16;
  header.insert(header.end(), {'R', 'I', 'F', 'F'});
  put_le(header, 4 + 8 + fmt_size + 8 + data_bytes, 4);
  header.insert(header.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
  put_le(header, fmt_size, 4);
  put_le(header, extensible ? 0xFFFE : 1, 2);
  put_le(header, channels, 2);
  put_le(header, rate, 4);
  put_le(header, rate * channels * kBytes, 4);
  put_le(header, channels * kBytes, 2);
  put_le(header, 8 * kBytes, 2);
  if (extensible) {
    put_le(header, 22, 2);
    put_le(header, 8 * kBytes, 2);
    put_le(header, 0x60F, 4);
    // KSDATAFORMAT_SUBTYPE_PCM
    const unsigned char guid[16] = {1, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
    header.insert(header.end(), guid, guid + 16);
  }
  header.insert(header.end(), {'d', 'a', 't', 'a'});
  put_le(header, data_bytes, 4);
  out.write(header.data(), static_cast<std::streamsize>(header.size()));

  // Written a second at a time, and repeated by copying the file's own
  // first period back in pieces: the writer holds no more than a second of
  // audio, so it adds nothing to the peak memory of the process that
  // measures an encoder it starts.
  Programme programme;
  programme.channels = channels;
  programme.rate = rate;
  const unsigned made = std::min(seconds, period);
  std::vector<char> block;
  double frame[6];
  for (std::uint64_t n = 0; n < std::uint64_t{made} * rate;) {
    block.clear();
    for (std::uint32_t i = 0; i < rate; ++i, ++n) {
      programme.frame(n, frame);
      for (unsigned c = 0; c < channels; ++c) {
        const auto s = static_cast<std::int32_t>(std::lround(std::clamp(frame[c], -1.0, 1.0) * 8388607.0));
        put_le(block, static_cast<std::uint32_t>(s), kBytes);
      }
    }
    out.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
  out.flush();
  const std::uint64_t period_bytes = std::uint64_t{made} * rate * channels * kBytes;
  std::ifstream again(path, std::ios::binary);
  for (std::uint64_t left = data_bytes - period_bytes; left > 0;) {
    again.seekg(static_cast<std::streamoff>(header.size()));
    for (std::uint64_t copied = 0; copied < period_bytes && left > 0;) {
      const std::uint64_t n = std::min<std::uint64_t>({block.size(), period_bytes - copied, left});
      again.read(block.data(), static_cast<std::streamsize>(n));
      out.write(block.data(), static_cast<std::streamsize>(n));
      copied += n;
      left -= n;
    }
  }
  if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace bench
