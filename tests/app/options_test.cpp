#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/help.h"
#include "app/options.h"

namespace tavrin {
namespace {

ParsedCommandLine parse(std::vector<std::string> words) {
  words.insert(words.begin(), {"in.wav", "out.dts"});
  std::vector<const char*> argv;
  for (const auto& w : words) argv.push_back(w.c_str());
  return parse_options(static_cast<int>(argv.size()), argv.data());
}

std::string failure(std::vector<std::string> words) {
  try {
    parse(std::move(words));
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

// One row per message; where rules overlap, the row shows which is checked first.
TEST(Options, Refusals) {
  const std::string unsupported = "unsupported bitrate; use 768, 1024, 1152 or 1411", bad = "invalid --bitrate value";
  const std::string raw_needs = "--raw requires --pcm-format, --sample-rate and --layout";
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"-b", "767.999"}, unsupported},         {{"-b", "96000"}, unsupported},
      {{"-b", "768k"}, bad},                    {{"-b", "0"}, bad},
      {{"-b", "inf"}, bad},                     {{"-b", "abc"}, "invalid stod argument"},
      {{"-b", "1e999"}, "stod argument out of range"},
      {{"--pcm-format", "S16LE"}, "--pcm-format must be s16le, s24le, s32le or f32le"},
      {{"--sample-rate", "abc"}, "invalid stoi argument"},
      {{"--sample-rate", "99999999999"}, "stoi argument out of range"},
      {{"--layout", "--raw"}, "unsupported layout"},  // the next word is the value, whatever it looks like
      {{"--experimental-span24"},
       "--experimental-span24 requires absolute, absolute-tmode, absolute-jump, candidate, candidate-jump, log or "
       "mask"},
      {{"--experimental-span24", "fast"}, "unsupported experimental span24 mode"},
      {{"--bitrate=768", "--layout"}, "unknown option: --bitrate=768"},
      {{"--nonsense", "--help"}, "unknown option: --nonsense"},
      {{"--experimental-span24", "log", "--production-candidate"},
       "--experimental-span24 and --production-candidate are mutually exclusive"},
      {{"--legacy", "--production-candidate", "--matrix-decode"},
       "--legacy and --production-candidate are mutually exclusive"},
      {{"--legacy", "--experimental-span24", "mask"}, "--legacy and --experimental-span24 are mutually exclusive"},
      {{"--thx"}, "--bass-management requires --matrix-decode"},
      {{"--crossover", "30"}, "--crossover requires --bass-management or --thx"},
      {{"--lfe-gain", "3"}, "--lfe-gain requires --bass-management"},
      {{"--matrix-decode", "--bass-management", "--crossover", "121"}, "crossover must be within 40..120 Hz"},
      {{"--matrix-decode", "--bass-management", "--lfe-gain", "-12.5"}, "LFE gain must be within -12..+6 dB"},
      {{"--rear-delay", "50"}, "--rear-delay must be within 0..40 ms"},
      {{"--matrix-decode", "--rear-delay", "nan"}, "--rear-delay must be within 0..40 ms"},
      {{"--rear-delay", "10"}, "--rear-delay is only valid with --matrix-decode"},
      {{"--matrix-decode", "--thx", "--crossover", "90"},
       "THX mode fixes crossover at 80 Hz; remove the crossover override"},
      {{"--matrix-decode", "--legacy"}, "--matrix-decode cannot be combined with stereo encoder policy options"},
      {{"--raw", "--pcm-format", "s16le", "--layout", "2.0", "--sample-rate", "0"}, raw_needs},
      {{"--raw", "--pcm-format", "s16le", "--layout", "2.0", "--sample-rate", "96000"},
       "--sample-rate must be 44100 or 48000"},
      {{"--layout", "5.1"}, "--pcm-format, --sample-rate and --layout require --raw"},
  };
  for (const auto& [words, message] : cases) EXPECT_EQ(failure(words), message) << words.front();
  for (std::string word : {"--bitrate", "--pcm-format", "--sample-rate", "--layout", "--crossover", "--rear-delay",
                           "--lfe-gain"})
    EXPECT_EQ(failure({word}), word + " requires a value");
}

TEST(Options, Accepted) {
  const std::vector<std::pair<std::string, std::uint32_t>> rates = {
      {"768", 768000},     {"1024", 1024000},      {"1152", 1152000},   {"1411", 1411200},
      {"1411.2", 1411200}, {"1411200.4", 1411200}, {"767.99995", 768000},
  };
  for (const auto& [word, rate] : rates) EXPECT_EQ(parse({"--bitrate", word}).options.bitrate, rate) << word;
  const std::vector<std::vector<std::string>> accepted = {
      {"--sample-rate", "0", "--lfe-gain", "0"},  // 0 counts as not given
      {"--matrix-decode", "--bass-management", "--crossover", "40", "--lfe-gain", "-12", "--rear-delay", "0"},
      {"--matrix-decode", "--bass-management", "--crossover", "120", "--lfe-gain", "6", "--rear-delay", "40"},
      {"--matrix-decode", "--thx", "--crossover", "80"},
      {"--experimental-span24", "candidate-jump"},
  };
  for (const auto& words : accepted) EXPECT_EQ(failure(words), "") << words.back();

  // As the standard routine: leading blanks and a sign taken, trailing text ignored.
  const auto raw = parse({"--raw", "--pcm-format", "f32le", "--sample-rate", " +44100Hz", "--layout", "stereo"});
  EXPECT_EQ(raw.options.sampleRate, 44100);
  EXPECT_EQ(raw.options.layout.name, "2.0");
}

// Parsing stops at a help word: nothing after it is read, no cross-check runs.
TEST(Options, HelpStopsParsing) {
  EXPECT_EQ(parse({"-q", "--help", "--nonsense"}).help, HelpRequest::normal);
  EXPECT_EQ(parse({"--thx", "-h"}).help, HelpRequest::normal);
  EXPECT_EQ(parse({"--help-dev", "--layout"}).help, HelpRequest::developer);
}

TEST(Help, TextShape) {
  const std::string normal = help_text(false);
  const std::string dev = help_text(true);
  EXPECT_EQ(normal.rfind("Tavrin-DTS 1.0.1.0 - Tavrin DTS Core Audio Encoder\n", 0), 0u);
  // Scripts compare the published text, odd spacing and placement included.
  for (const std::string& piece :
       {"\n  -b, --bitrate <kbps>     Output bitrate: 768, 1024, 1152 or 1411\n" + std::string(27, ' ') +
            "(1411 maps to 1411.2 kbps; default 768)\n",
        std::string("\n      --help-dev            Show developer/experimental options\n\nWAVE input:\n"),
        std::string("\n  Stereo, or 3.0/4.0/5.0/5.1 WAVEFORMATEXTENSIBLE\n\nRaw PCM input:\n")}) {
    EXPECT_NE(normal.find(piece), std::string::npos) << piece;
  }
  EXPECT_EQ(std::count(normal.begin(), normal.end(), '\n'), 50);
  EXPECT_EQ(dev.substr(0, normal.size()), normal);
  EXPECT_EQ(dev.substr(normal.size()),
            "\nDeveloper options:\n      --experimental-span24 <mode>\n"
            "          modes: absolute, absolute-tmode, absolute-jump,\n"
            "                 candidate, candidate-jump, log, mask\n\n"
            "Experimental span24 modes are stereo-only.\n");
}

}  // namespace
}  // namespace tavrin
