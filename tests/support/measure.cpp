#include "support/measure.h"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace tavrin::test {

Match compare(const std::vector<double>& source, const std::vector<float>& decoded, std::size_t delay) {
  Match m;
  double xx = 0, xy = 0, ee = 0;
  const std::size_t n = decoded.size() > delay ? std::min(source.size(), decoded.size() - delay) : 0;
  for (std::size_t i = 0; i < n; ++i) {
    const double x = source[i], y = decoded[i + delay];
    xx += x * x;
    xy += x * y;
    ee += (y - x) * (y - x);
  }
  for (float v : decoded) m.decoded_peak = std::max(m.decoded_peak, std::fabs(static_cast<double>(v)));
  m.gain_db = xx > 0 ? 20.0 * std::log10(std::fabs(xy / xx)) : 0.0;
  m.snr_db = ee > 0 ? 10.0 * std::log10(xx / ee) : 300.0;
  return m;
}

std::size_t best_delay(const std::vector<double>& source, const std::vector<float>& decoded, std::size_t from,
                       std::size_t to) {
  std::size_t best = from;
  double best_snr = -1e300;
  for (std::size_t d = from; d <= to; ++d) {
    const double snr = compare(source, decoded, d).snr_db;
    if (snr > best_snr) {
      best_snr = snr;
      best = d;
    }
  }
  return best;
}

std::uint64_t expected_stream_bytes(std::uint32_t rate, std::uint32_t bitrate, std::size_t samples) {
  const std::uint64_t frames = (samples + 1023) / 1024;
  return frames * bitrate * 1024 / (8 * std::uint64_t{rate});
}

Channels as_stored(const Channels& c, SampleFormat fmt) {
  Channels out = c;
  if (fmt == SampleFormat::f32le) {
    for (auto& ch : out)
      for (auto& v : ch) v = static_cast<double>(static_cast<float>(v));
    return out;
  }
  const double scale = fmt == SampleFormat::s16le ? 32768.0 : fmt == SampleFormat::s24le ? 8388608.0 : 2147483648.0;
  for (auto& ch : out)
    for (auto& v : ch) v = std::clamp(std::nearbyint(v * scale), -scale, scale - 1) / scale;
  return out;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

}  // namespace tavrin::test
