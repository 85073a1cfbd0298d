#include "support/quality.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <complex>
#include <cstdio>
#include <numbers>

#include "alloc/hearing.h"
#include "support/decoders.h"
#include "support/wav_writer.h"

namespace tavrin::test {
namespace {

using Complex = std::complex<double>;

constexpr std::size_t kFrame = 2048;
constexpr std::size_t kHop = kFrame / 2;
constexpr std::size_t kBins = kFrame / 2 + 1;
constexpr double kFullScaleSpl = 96.0;
constexpr double kTonalFlatnessDb = -60.0;
constexpr double kTiny = 1e-30;

double to_db(double ratio) { return ratio > 0.0 ? std::max(10.0 * std::log10(ratio), kNoNoiseDb) : kNoNoiseDb; }

// std::complex's operator* checks for infinities through a library call;
// these values are always finite.
Complex mul(Complex a, Complex b) {
  return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}

// ---- Radix-2 FFT ------------------------------------------------------------

struct Fft {
  std::vector<Complex> twiddle;       // exp(-2 pi i k / n), k < n / 2
  std::vector<std::size_t> reversed;  // bit-reversed index of each position
};

Fft make_fft(std::size_t n) {
  Fft f;
  for (std::size_t k = 0; k < n / 2; ++k) f.twiddle.push_back(std::polar(1.0, -2.0 * std::numbers::pi * k / n));
  f.reversed.resize(n);
  for (std::size_t i = 0, j = 0; i < n; ++i) {
    f.reversed[i] = j;
    std::size_t bit = n >> 1;
    for (; j & bit; bit >>= 1) j ^= bit;
    j |= bit;
  }
  return f;
}

void transform(const Fft& f, std::vector<Complex>& x) {
  const std::size_t n = x.size();
  for (std::size_t i = 0; i < n; ++i)
    if (i < f.reversed[i]) std::swap(x[i], x[f.reversed[i]]);
  for (std::size_t len = 2; len <= n; len <<= 1) {
    const std::size_t half = len / 2, stride = n / len;
    for (std::size_t start = 0; start < n; start += len) {
      for (std::size_t k = 0; k < half; ++k) {
        const Complex u = x[start + k], v = mul(x[start + k + half], f.twiddle[k * stride]);
        x[start + k] = u + v;
        x[start + k + half] = u - v;
      }
    }
  }
}

// ---- Masking model ----------------------------------------------------------

double threshold_in_quiet_db_spl(double f) { return threshold_in_quiet_db(std::max(f, 20.0) / 1000.0); }

struct MaskModel {
  Fft fft;
  std::vector<double> window;
  double scale = 0.0;                   // bin power of a full-scale sine sums to 1
  std::vector<std::size_t> band_start;  // one more than the bands: the last is kBins
  std::vector<double> spread;           // [maskee * bands + masker], each row summing to 1
  std::vector<double> tonal_offset_db;
  std::vector<double> quiet;            // threshold in quiet, relative to a full-scale sine
  std::vector<std::size_t> flat_lo, flat_hi;  // bins whose flatness decides a band's tonality
  std::size_t bands() const { return band_start.size() - 1; }
};

MaskModel make_mask_model(std::uint32_t rate) {
  MaskModel m;
  m.fft = make_fft(kFrame);
  double energy = 0.0;
  for (std::size_t i = 0; i < kFrame; ++i) {
    m.window.push_back(0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * i / kFrame));
    energy += m.window.back() * m.window.back();
  }
  m.scale = 4.0 / (kFrame * energy);

  std::vector<double> freq(kBins), z(kBins);
  for (std::size_t k = 0; k < kBins; ++k) {
    freq[k] = static_cast<double>(k) * rate / kFrame;
    z[k] = bark(freq[k]);
    if (k == 0 || std::floor(z[k]) != std::floor(z[k - 1])) m.band_start.push_back(k);
  }
  m.band_start.push_back(kBins);
  const std::size_t nb = m.bands();

  std::vector<double> centre(nb);
  for (std::size_t b = 0; b < nb; ++b) {
    const std::size_t lo = m.band_start[b], hi = m.band_start[b + 1];
    double sum = 0.0, quiet_db = 1e300;
    for (std::size_t k = lo; k < hi; ++k) {
      sum += z[k];
      quiet_db = std::min(quiet_db, threshold_in_quiet_db_spl(freq[k]));
    }
    centre[b] = sum / static_cast<double>(hi - lo);
    m.quiet.push_back(std::pow(10.0, (quiet_db - kFullScaleSpl) / 10.0));
    m.tonal_offset_db.push_back(14.5 + static_cast<double>(b + 1));
    // The band and its neighbours, widened to 32 bins where the bands are
    // narrower: a few bins say nothing about flatness.
    std::size_t a = m.band_start[b > 0 ? b - 1 : 0], e = m.band_start[std::min(b + 2, nb)];
    if (e - a < 32) {
      const std::size_t mid = (a + e) / 2;
      a = mid > 16 ? mid - 16 : 0;
      e = std::min(kBins, mid + 16);
    }
    m.flat_lo.push_back(a);
    m.flat_hi.push_back(e);
  }
  m.spread.resize(nb * nb);
  for (std::size_t i = 0; i < nb; ++i) {
    double row = 0.0;
    for (std::size_t j = 0; j < nb; ++j) row += m.spread[i * nb + j] = std::pow(10.0, schroeder_spreading_db(centre[i] - centre[j]) / 10.0);
    for (std::size_t j = 0; j < nb; ++j) m.spread[i * nb + j] /= row;
  }
  return m;
}

// Masking threshold of each band from the source's bin powers.
void masking_threshold(const MaskModel& m, const std::vector<double>& power, std::vector<double>& prefix_power,
                       std::vector<double>& prefix_log, std::vector<double>& energy, std::vector<double>& threshold) {
  const std::size_t nb = m.bands();
  prefix_power[0] = prefix_log[0] = 0.0;
  for (std::size_t k = 0; k < kBins; ++k) {
    prefix_power[k + 1] = prefix_power[k] + power[k];
    prefix_log[k + 1] = prefix_log[k] + std::log(power[k] + kTiny);
  }
  for (std::size_t b = 0; b < nb; ++b) energy[b] = prefix_power[m.band_start[b + 1]] - prefix_power[m.band_start[b]];
  for (std::size_t b = 0; b < nb; ++b) {
    double spread = 0.0;
    for (std::size_t j = 0; j < nb; ++j) spread += m.spread[b * nb + j] * energy[j];
    const std::size_t lo = m.flat_lo[b], hi = m.flat_hi[b];
    const double width = static_cast<double>(hi - lo);
    const double arithmetic = (prefix_power[hi] - prefix_power[lo]) / width;
    const double log_geometric = (prefix_log[hi] - prefix_log[lo]) / width;
    const double flatness_db = 10.0 / std::numbers::ln10 * (log_geometric - std::log(arithmetic + kTiny));
    const double tonality = std::clamp(flatness_db / kTonalFlatnessDb, 0.0, 1.0);
    const double offset_db = tonality * m.tonal_offset_db[b] + (1.0 - tonality) * 5.5;
    threshold[b] = std::max(spread * std::pow(10.0, -offset_db / 10.0), m.quiet[b]);
  }
}

std::string trimmed(std::string text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
  return text;
}

double sum_of_squares(const std::vector<double>& x, std::size_t from, std::size_t to) {
  double s = 0.0;
  for (std::size_t i = from; i < to; ++i) s += x[i] * x[i];
  return s;
}

}  // namespace

std::vector<double> coding_error(const std::vector<double>& source, const std::vector<float>& decoded,
                                 std::size_t delay) {
  const std::size_t n = decoded.size() > delay ? std::min(source.size(), decoded.size() - delay) : 0;
  double xx = 0.0, xy = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    xx += source[i] * source[i];
    xy += source[i] * decoded[i + delay];
  }
  const double gain = xx > 0.0 ? xy / xx : 0.0;
  const double inverse = std::fabs(gain) >= 1e-3 ? 1.0 / gain : 1.0;
  std::vector<double> error(n);
  for (std::size_t i = 0; i < n; ++i) error[i] = decoded[i + delay] * inverse - source[i];
  return error;
}

NmrResult noise_to_mask(const std::vector<double>& source, const std::vector<double>& error, std::uint32_t rate) {
  const MaskModel m = make_mask_model(rate);
  const std::size_t n = std::min(source.size(), error.size()), nb = m.bands();
  const std::size_t frames = n <= kFrame ? 1 : (n - kFrame) / kHop + 1;
  std::vector<Complex> z(kFrame);
  std::vector<double> px(kBins), pe(kBins), prefix_power(kBins + 1), prefix_log(kBins + 1), energy(nb),
      threshold(nb);
  double sum = 0.0;
  std::size_t over = 0;
  for (std::size_t f = 0; f < frames; ++f) {
    // Source and error ride in one transform, as its real and imaginary parts.
    for (std::size_t i = 0, at = f * kHop; i < kFrame; ++i, ++at)
      z[i] = at < n ? Complex(source[at] * m.window[i], error[at] * m.window[i]) : Complex();
    transform(m.fft, z);
    for (std::size_t k = 0; k < kBins; ++k) {
      const Complex a = z[k], b = std::conj(z[(kFrame - k) % kFrame]);
      px[k] = std::norm(a + b) * 0.25 * m.scale;
      pe[k] = std::norm(a - b) * 0.25 * m.scale;
    }
    masking_threshold(m, px, prefix_power, prefix_log, energy, threshold);
    double frame_sum = 0.0, worst = 0.0;
    for (std::size_t b = 0; b < nb; ++b) {
      double noise = 0.0;
      for (std::size_t k = m.band_start[b]; k < m.band_start[b + 1]; ++k) noise += pe[k];
      const double ratio = noise / threshold[b];
      frame_sum += ratio;
      worst = std::max(worst, ratio);
    }
    sum += frame_sum / static_cast<double>(nb);
    over += worst > 1.0 ? 1 : 0;
  }
  return {to_db(sum / static_cast<double>(frames)), 100.0 * static_cast<double>(over) / static_cast<double>(frames)};
}

double pre_echo_db(const std::vector<double>& source, const std::vector<double>& error, std::uint32_t rate,
                   const std::vector<std::size_t>& attacks) {
  const std::size_t n = std::min(source.size(), error.size());
  const auto w = static_cast<std::size_t>(std::lround(0.005 * rate));
  double sum = 0.0;
  std::size_t counted = 0;
  for (std::size_t a : attacks) {
    if (a < w || a + w > n) continue;
    const double after = sum_of_squares(source, a, a + w);
    if (after <= 0.0) continue;
    sum += sum_of_squares(error, a - w, a) / after;
    ++counted;
  }
  return counted > 0 ? to_db(sum / static_cast<double>(counted)) : kNotMeasured;
}

Quality measure_quality(const Channels& source, const std::vector<std::vector<float>>& decoded, std::size_t delay,
                        std::uint32_t rate, const std::vector<std::size_t>& attacks) {
  Quality q;
  double noise_to_signal = 0.0, noise_to_mask_sum = 0.0, pre_echo = 0.0;
  std::size_t with_attacks = 0;
  const std::size_t channels = std::min(source.size(), decoded.size());
  for (std::size_t c = 0; c < channels; ++c) {
    const Match match = compare(source[c], decoded[c], delay);
    const std::vector<double> error = coding_error(source[c], decoded[c], delay);
    const NmrResult nmr = noise_to_mask(source[c], error, rate);
    const ChannelQuality cq{match.gain_db, match.snr_db, nmr.nmr_db, nmr.frames_over_pct,
                            pre_echo_db(source[c], error, rate, attacks)};
    q.channels.push_back(cq);
    noise_to_signal += std::pow(10.0, -cq.snr_db / 10.0);
    noise_to_mask_sum += std::pow(10.0, cq.nmr_db / 10.0);
    if (!std::isnan(cq.pre_echo_db)) {
      pre_echo += std::pow(10.0, cq.pre_echo_db / 10.0);
      ++with_attacks;
    }
  }
  if (channels == 0) return q;
  const auto count = static_cast<double>(channels);
  q.snr_db = -to_db(noise_to_signal / count);
  q.nmr_db = to_db(noise_to_mask_sum / count);
  if (with_attacks > 0) q.pre_echo_db = to_db(pre_echo / static_cast<double>(with_attacks));
  return q;
}

RoundTrip round_trip(const std::filesystem::path& encoder, const TestSignal& signal, int kbps,
                     const std::vector<std::string>& extra_args, const std::filesystem::path& dir,
                     const std::string& tag) {
  RoundTrip r;
  const std::string base = (dir / (signal.id + "-" + std::to_string(signal.rate))).string();
  const std::string wav = base + ".wav", stream = base + "-" + std::to_string(kbps) + "-" + tag + ".dts";
  write_wav_file(wav, signal.channels, signal.rate, SampleFormat::s24le);
  std::vector<std::string> args{encoder.string(), wav, stream, "-b", std::to_string(kbps), "-q"};
  args.insert(args.end(), extra_args.begin(), extra_args.end());
  const CommandResult encode = run_command(args);
  if (encode.exit_status != 0) {
    r.problem = "encoder exited with " + std::to_string(encode.exit_status) + ": " + trimmed(encode.err);
    return r;
  }
  const DecodedAudio decoded = decode_with_ffmpeg(stream, 2);
  if (!decoded.clean() || decoded.channels.size() != 2) {
    r.problem = "ffmpeg exited with " + std::to_string(decoded.run.exit_status) + ": " + trimmed(decoded.run.err);
    return r;
  }
  r.quality = measure_quality(as_stored(signal.channels, SampleFormat::s24le), decoded.channels, kCodecDelay,
                              signal.rate, signal.attacks);
  r.ok = true;
  return r;
}

double median(std::vector<double> values) {
  std::erase_if(values, [](double v) { return std::isnan(v); });
  if (values.empty()) return kNotMeasured;
  std::sort(values.begin(), values.end());
  const std::size_t mid = values.size() / 2;
  return values.size() % 2 == 1 ? values[mid] : 0.5 * (values[mid - 1] + values[mid]);
}

std::string format_quality_table(const std::vector<std::string>& ids, const std::vector<Quality>& a,
                                 const std::vector<Quality>& b) {
  const bool pair = !b.empty();
  auto cell = [](double v) {
    char buf[32];
    if (std::isnan(v)) return std::string("       -");
    std::snprintf(buf, sizeof buf, " %7.1f", v);
    return std::string(buf);
  };
  auto set = [&](const Quality& q) { return cell(q.snr_db) + cell(q.nmr_db) + cell(q.pre_echo_db); };
  auto column = [](const std::vector<Quality>& qs) {
    std::vector<double> nmr;
    for (const auto& q : qs) nmr.push_back(q.nmr_db);
    return nmr;
  };
  std::string out = pair ? "signal       |    A: SNR     NMR     pre |    B: SNR     NMR     pre |  B-A: NMR     pre\n"
                         : "signal       |       SNR     NMR     pre\n";
  for (std::size_t i = 0; i < ids.size() && i < a.size(); ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "%-12.12s", ids[i].c_str());
    out += std::string(name) + " |" + set(a[i]);
    if (pair && i < b.size())
      out += " |" + set(b[i]) + " |" + cell(b[i].nmr_db - a[i].nmr_db) + cell(b[i].pre_echo_db - a[i].pre_echo_db);
    out += "\n";
  }
  const double ma = median(column(a));
  out += "median NMR   |        " + cell(ma);
  if (pair) {
    const double mb = median(column(b));
    out += "         |        " + cell(mb) + "         |" + cell(mb - ma);
    // Where B does worst against A: the figure a "never worse" claim rests on.
    double worst_nmr = kNotMeasured, worst_pre = kNotMeasured;
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
      worst_nmr = std::fmax(worst_nmr, b[i].nmr_db - a[i].nmr_db);
      worst_pre = std::fmax(worst_pre, b[i].pre_echo_db - a[i].pre_echo_db);
    }
    out += "\nworst B-A    |                         |                         |" + cell(worst_nmr) + cell(worst_pre);
  }
  return out + "\n";
}

}  // namespace tavrin::test
