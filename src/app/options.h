#pragma once
// The command line after the input and output paths, parsed into one record.
#include <cstdint>
#include <string>

#include "input/layout.h"
#include "input/sample_format.h"

namespace tavrin {

struct EncoderOptions {
  std::uint32_t bitrate = 768000;
  bool raw = false;
  std::int32_t sampleRate = 0;
  SampleFormat pcmFormat = SampleFormat::s24le;
  ChannelLayout layout;
  bool pcmFormatGiven = false;
  bool layoutGiven = false;
  bool span24Given = false;
  std::uint8_t span24Scale = 0;
  std::string span24Mode = "absolute";
  bool span24TransientMode = false;
  bool productionCandidate = false;
  bool legacy = false;
  bool matrixDecode = false;
  bool bassManagement = false;
  bool thx = false;
  bool crossoverGiven = false;
  bool rearDelayGiven = false;
  double rearDelayMs = 20.0;
  double crossoverHz = 80.0;
  double lfeGainDb = 0.0;
  bool devMatrixMemoryReference = false;
  bool quiet = false;
};

enum class HelpRequest { none, normal, developer };

struct ParsedCommandLine {
  EncoderOptions options;
  // Set when a help word was met; parsing stopped there and nothing after it
  // was examined or cross-checked.
  HelpRequest help = HelpRequest::none;
};

// `argv` starts at the input path (the program name is not part of it), so
// options are argv[2..argc-1]. Throws std::invalid_argument / std::out_of_range
// with the user-facing text on the first failure.
ParsedCommandLine parse_options(int argc, const char* const* argv);

// The four standard bit rates, from a --bitrate word (kbit/s or bit/s).
std::uint32_t parse_bitrate(const std::string& word);

// Decimal conversions with the standard routines' behaviour (leading blanks,
// trailing text ignored) and their messages, independent of the C++ library.
std::int32_t convert_int(const std::string& word);
double convert_double(const std::string& word, std::size_t* consumed = nullptr);

}  // namespace tavrin
