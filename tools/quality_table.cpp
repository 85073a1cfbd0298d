// Encodes the generated test signals with the real program, decodes them with
// ffmpeg and prints SNR, noise-to-mask ratio and pre-echo per signal, for
// every bit rate and sample rate asked for; with a second option set, both
// side by side and their difference. See README, "Measuring quality".
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/decoders.h"
#include "support/quality.h"
#include "support/signals.h"

namespace {

namespace fs = std::filesystem;
using namespace tavrin::test;

constexpr const char* kUsage =
    "usage: quality_table [options]\n"
    "  --encoder PATH     program to run (default: the tavrin-dts of this build)\n"
    "  --signals ID,...   signals to encode (default: all of them)\n"
    "  --bitrates K,...   kbit/s (default: 768,1024,1152,1411)\n"
    "  --rates HZ,...     sample rates (default: 44100,48000)\n"
    "  --seconds S        length of each signal (default: 3)\n"
    "  --a 'OPTIONS'      encoder options of set A (default: none, the stereo default)\n"
    "  --b 'OPTIONS'      a second set, printed beside A with the difference B - A\n"
    "  --keep             keep the WAVE and stream files (their folder is printed)\n";

struct Settings {
  fs::path encoder = TAVRIN_BINARY;
  std::vector<std::string> signals = signal_ids();
  std::vector<int> bitrates{768, 1024, 1152, 1411};
  std::vector<int> rates{44100, 48000};
  double seconds = 3.0;
  std::vector<std::string> a, b;
  bool pair = false;
  bool keep = false;
};

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);)
    if (!part.empty()) parts.push_back(part);
  return parts;
}

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

std::vector<int> numbers(const std::string& text) {
  std::vector<int> out;
  for (const auto& part : split(text, ',')) out.push_back(std::stoi(part));
  return out;
}

Settings parse(int argc, char** argv) {
  Settings s;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "-h" || word == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    }
    if (word == "--keep") {
      s.keep = true;
      continue;
    }
    if (i + 1 >= argc) throw std::invalid_argument("unknown option or missing value: " + word);
    const std::string value = argv[++i];
    if (word == "--encoder") {
      s.encoder = value;
    } else if (word == "--signals") {
      s.signals = split(value, ',');
    } else if (word == "--bitrates") {
      s.bitrates = numbers(value);
    } else if (word == "--rates") {
      s.rates = numbers(value);
    } else if (word == "--seconds") {
      s.seconds = std::stod(value);
    } else if (word == "--a") {
      s.a = words(value);
    } else if (word == "--b") {
      s.b = words(value);
      s.pair = true;
    } else {
      throw std::invalid_argument("unknown option: " + word);
    }
  }
  return s;
}

std::string joined(const std::vector<std::string>& options) {
  std::string out;
  for (const auto& o : options) out += (out.empty() ? "" : " ") + o;
  return out.empty() ? "(none)" : out;
}

// One option set's round trip; a failure is reported and leaves the row
// unmeasured, so the rest of the table still shows.
Quality measured(const Settings& s, const TestSignal& signal, int kbps, const std::vector<std::string>& options,
                 const fs::path& dir, const char* tag, bool& failed) {
  RoundTrip r = round_trip(s.encoder, signal, kbps, options, dir, tag);
  if (!r.ok) {
    std::fprintf(stderr, "%s %u Hz %d kbit/s, options %s: %s\n", signal.id.c_str(), signal.rate, kbps,
                 joined(options).c_str(), r.problem.c_str());
    failed = true;
  }
  return r.quality;
}

int run(const Settings& s) {
  const fs::path dir = make_temp_dir(fs::temp_directory_path(), "quality-table");
  std::printf("encoder %s\nA: %s\n", s.encoder.string().c_str(), joined(s.a).c_str());
  if (s.pair) std::printf("B: %s\n", joined(s.b).c_str());
  std::printf("SNR and NMR in dB (NMR below 0: noise masked); pre: noise in the 5 ms before each attack "
              "against the 5 ms after it, dB\n");
  bool failed = false;
  for (int rate : s.rates) {
    std::vector<TestSignal> set;
    for (const auto& id : s.signals) set.push_back(make_signal(id, static_cast<std::uint32_t>(rate), s.seconds));
    for (int kbps : s.bitrates) {
      std::vector<Quality> a, b;
      for (const auto& signal : set) {
        a.push_back(measured(s, signal, kbps, s.a, dir, "a", failed));
        if (s.pair) b.push_back(measured(s, signal, kbps, s.b, dir, "b", failed));
      }
      std::printf("\n== %d kbit/s, %d Hz\n%s", kbps, rate, format_quality_table(s.signals, a, b).c_str());
      std::fflush(stdout);
    }
  }
  if (s.keep) {
    std::printf("\nfiles kept in %s\n", dir.string().c_str());
  } else {
    fs::remove_all(dir);
  }
  return failed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(parse(argc, argv));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quality_table: %s\n%s", e.what(), kUsage);
    return 2;
  }
}
