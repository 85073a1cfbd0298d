#include "app/options.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace tavrin {

std::int32_t convert_int(const std::string& word) {
  const char* begin = word.c_str();
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(begin, &end, 10);
  if (end == begin) throw std::invalid_argument("invalid stoi argument");
  if (errno == ERANGE || value < INT32_MIN || value > INT32_MAX) {
    throw std::out_of_range("stoi argument out of range");
  }
  return static_cast<std::int32_t>(value);
}

double convert_double(const std::string& word, std::size_t* consumed) {
  const char* begin = word.c_str();
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(begin, &end);
  if (end == begin) throw std::invalid_argument("invalid stod argument");
  if (errno == ERANGE) throw std::out_of_range("stod argument out of range");
  if (consumed) *consumed = static_cast<std::size_t>(end - begin);
  return value;
}

std::uint32_t parse_bitrate(const std::string& word) {
  std::size_t consumed = 0;
  const double value = convert_double(word, &consumed);
  if (consumed != word.size() || !std::isfinite(value) || !(value > 0.0)) {
    throw std::invalid_argument("invalid --bitrate value");
  }
  const char* unsupported = "unsupported bitrate; use 768, 1024, 1152 or 1411";
  if (value < 10000.0) {
    const auto near = [value](double kbps) { return std::fabs(value - kbps) <= 0.0001; };
    if (near(768.0)) return 768000;
    if (near(1024.0)) return 1024000;
    if (near(1152.0)) return 1152000;
    if (near(1411.0) || near(1411.2)) return 1411200;
    throw std::invalid_argument(unsupported);
  }
  const double rounded = std::round(value);
  for (std::uint32_t rate : {768000u, 1024000u, 1152000u, 1411200u}) {
    if (rounded == static_cast<double>(rate)) return rate;
  }
  throw std::invalid_argument(unsupported);
}

namespace {

bool is_supported_bitrate(std::uint32_t rate) {
  return rate == 768000 || rate == 1024000 || rate == 1152000 || rate == 1411200;
}

void cross_check(EncoderOptions& o) {
  auto fail = [](const char* message) { throw std::invalid_argument(message); };
  if (o.span24Given && o.productionCandidate) {
    fail("--experimental-span24 and --production-candidate are mutually exclusive");
  }
  if (o.legacy && o.productionCandidate) fail("--legacy and --production-candidate are mutually exclusive");
  if (o.legacy && o.span24Given) fail("--legacy and --experimental-span24 are mutually exclusive");
  if (!is_supported_bitrate(o.bitrate)) fail("unsupported bitrate; use 768, 1024, 1152 or 1411");
  if (o.bassManagement && !o.matrixDecode) fail("--bass-management requires --matrix-decode");
  if (o.crossoverGiven && !o.bassManagement) fail("--crossover requires --bass-management or --thx");
  if (o.lfeGainDb != 0.0 && !o.bassManagement) fail("--lfe-gain requires --bass-management");
  if (!(o.crossoverHz >= 40.0 && o.crossoverHz <= 120.0)) fail("crossover must be within 40..120 Hz");
  if (!(o.lfeGainDb >= -12.0 && o.lfeGainDb <= 6.0)) fail("LFE gain must be within -12..+6 dB");
  if (!std::isfinite(o.rearDelayMs) || o.rearDelayMs < 0.0 || o.rearDelayMs > 40.0) {
    fail("--rear-delay must be within 0..40 ms");
  }
  if (o.rearDelayGiven && !o.matrixDecode) fail("--rear-delay is only valid with --matrix-decode");
  if (o.thx) {
    if (o.crossoverGiven && std::fabs(o.crossoverHz - 80.0) > 1e-9) {
      fail("THX mode fixes crossover at 80 Hz; remove the crossover override");
    }
    o.crossoverHz = 80.0;
  }
  if (o.matrixDecode && (o.legacy || o.productionCandidate || o.span24Given)) {
    fail("--matrix-decode cannot be combined with stereo encoder policy options");
  }
  if (o.raw) {
    if (!o.pcmFormatGiven || o.sampleRate == 0 || !o.layoutGiven) {
      fail("--raw requires --pcm-format, --sample-rate and --layout");
    }
    if (o.sampleRate != 44100 && o.sampleRate != 48000) fail("--sample-rate must be 44100 or 48000");
  } else if (o.pcmFormatGiven || o.sampleRate != 0 || o.layoutGiven) {
    fail("--pcm-format, --sample-rate and --layout require --raw");
  }
}

}  // namespace

ParsedCommandLine parse_options(int argc, const char* const* argv) {
  ParsedCommandLine parsed;
  EncoderOptions& o = parsed.options;
  for (int i = 2; i < argc; ++i) {
    const std::string_view word = argv[i];
    // The value of an option is the next word, whatever it looks like.
    auto value = [&](const char* missing) -> std::string {
      if (i + 1 >= argc) throw std::invalid_argument(missing);
      return argv[++i];
    };
    if (word == "--bitrate" || word == "-b") {
      o.bitrate = parse_bitrate(value("--bitrate requires a value"));
    } else if (word == "--raw") {
      o.raw = true;
    } else if (word == "--pcm-format") {
      const auto format = parse_sample_format(value("--pcm-format requires a value"));
      if (!format) throw std::invalid_argument("--pcm-format must be s16le, s24le, s32le or f32le");
      o.pcmFormat = *format;
      o.pcmFormatGiven = true;
    } else if (word == "--sample-rate") {
      o.sampleRate = convert_int(value("--sample-rate requires a value"));
    } else if (word == "--layout") {
      const auto layout = parse_layout_name(value("--layout requires a value"));
      if (!layout) throw std::invalid_argument("unsupported layout");
      o.layout = *layout;
      o.layoutGiven = true;
    } else if (word == "--experimental-span24") {
      const std::string mode = value(
          "--experimental-span24 requires absolute, absolute-tmode, absolute-jump, candidate, candidate-jump, log "
          "or mask");
      o.span24Given = true;
      o.span24Mode = mode;
      if (mode == "absolute" || mode == "absolute-jump" || mode == "candidate" || mode == "candidate-jump") {
        o.span24Scale = 0;
      } else if (mode == "absolute-tmode") {
        o.span24Scale = 0;
        o.span24TransientMode = true;
      } else if (mode == "log") {
        o.span24Scale = 1;
      } else if (mode == "mask") {
        o.span24Scale = 2;
      } else {
        throw std::invalid_argument("unsupported experimental span24 mode");
      }
    } else if (word == "--production-candidate") {
      o.productionCandidate = true;
    } else if (word == "--matrix-decode") {
      o.matrixDecode = true;
    } else if (word == "--bass-management") {
      o.bassManagement = true;
    } else if (word == "--crossover") {
      o.crossoverHz = convert_double(value("--crossover requires a value"));
      o.crossoverGiven = true;
    } else if (word == "--thx") {
      o.bassManagement = true;
      o.thx = true;
    } else if (word == "--rear-delay") {
      o.rearDelayMs = convert_double(value("--rear-delay requires a value"));
      o.rearDelayGiven = true;
    } else if (word == "--lfe-gain") {
      o.lfeGainDb = convert_double(value("--lfe-gain requires a value"));
    } else if (word == "--dev-matrix-memory-reference") {
      o.devMatrixMemoryReference = true;
    } else if (word == "--legacy") {
      o.legacy = true;
    } else if (word == "--help" || word == "-h") {
      parsed.help = HelpRequest::normal;
      return parsed;
    } else if (word == "--quiet" || word == "-q") {
      o.quiet = true;
    } else if (word == "--help-dev") {
      parsed.help = HelpRequest::developer;
      return parsed;
    } else {
      throw std::invalid_argument("unknown option: " + std::string(word));
    }
  }
  cross_check(o);
  return parsed;
}

}  // namespace tavrin
