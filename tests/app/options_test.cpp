#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/help.h"
#include "app/options.h"
#include "bitstream/test_util.h"

namespace tavrin {
namespace {

ParsedCommandLine parse(std::vector<std::string> words) {
  words.insert(words.begin(), {"in.wav", "out.dts"});
  std::vector<const char*> argv;
  for (const auto& w : words) argv.push_back(w.c_str());
  return parse_options(static_cast<int>(argv.size()), argv.data());
}

std::string failure(const std::vector<std::string>& words) {
  return test::message_of<std::logic_error>([&] { parse(words); });
}

// One row per message; where rules overlap, the row shows which is checked first.
TEST(Options, Refusals) {
  const std::string mb = "--matrix-decode", bm = "--bass-management", sp = "--experimental-span24";
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"-b", "96000"}, "unsupported bitrate; use 768, 1024, 1152 or 1411"},
      {{"-b", "768k"}, "invalid --bitrate value"}, {{"-b", "k"}, "invalid stod argument"},
      {{"-b", "1e999"}, "stod argument out of range"}, {{"--sample-rate", "k"}, "invalid stoi argument"},
      {{"--sample-rate", "3000000000"}, "stoi argument out of range"},
      {{sp}, sp + " requires absolute, absolute-tmode, absolute-jump, candidate, candidate-jump, log or mask"},
      {{"--nonsense", "--help"}, "unknown option: --nonsense"}, {{sp, "fast"}, "unsupported experimental span24 mode"},
      {{"--pcm-format", "S16LE"}, "--pcm-format must be s16le, s24le, s32le or f32le"},
      {{"--layout", "--raw"}, "unsupported layout"},  // the next word is the value, whatever it looks like
      {{sp, "log", "--production-candidate"}, sp + " and --production-candidate are mutually exclusive"},
      {{"--legacy", "--production-candidate", mb}, "--legacy and --production-candidate are mutually exclusive"},
      {{"--legacy", sp, "mask"}, "--legacy and " + sp + " are mutually exclusive"},
      {{"--thx"}, "--bass-management requires --matrix-decode"}, {{"--lfe-gain", "3"}, "--lfe-gain requires " + bm},
      {{"--crossover", "30"}, "--crossover requires --bass-management or --thx"},
      {{mb, bm, "--crossover", "121"}, "crossover must be within 40..120 Hz"},
      {{mb, bm, "--lfe-gain", "-12.5"}, "LFE gain must be within -12..+6 dB"},
      {{"--rear-delay", "nan"}, "--rear-delay must be within 0..40 ms"},
      {{"--rear-delay", "10"}, "--rear-delay is only valid with --matrix-decode"},
      {{mb, "--thx", "--crossover", "90"}, "THX mode fixes crossover at 80 Hz; remove the crossover override"},
      {{mb, "--legacy"}, "--matrix-decode cannot be combined with stereo encoder policy options"},
      {{"--raw", "--pcm-format", "s16le", "--layout", "2.0", "--sample-rate", "0"},
       "--raw requires --pcm-format, --sample-rate and --layout"},
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
      {"1024", 1024000}, {"1411", 1411200}, {"1411.2", 1411200}, {"1152000.4", 1152000}, {"767.99995", 768000}};
  for (const auto& [word, rate] : rates) EXPECT_EQ(parse({"--bitrate", word}).options.bitrate, rate) << word;
  for (const auto& words : std::vector<std::vector<std::string>>{
           {"--sample-rate", "0", "--lfe-gain", "0"},  // 0 counts as not given
           {"--matrix-decode", "--bass-management", "--crossover", "40", "--lfe-gain", "-12", "--rear-delay", "0"},
           {"--matrix-decode", "--bass-management", "--crossover", "120", "--lfe-gain", "6", "--rear-delay", "40"},
           {"--matrix-decode", "--thx", "--crossover", "80"},
           {"--experimental-span24", "candidate-jump"}})
    EXPECT_EQ(failure(words), "<no exception>") << words.back();
  // As the C routines: leading blanks and a sign taken, trailing text ignored.
  const auto raw = parse({"--raw", "--pcm-format", "f32le", "--sample-rate", " +44100Hz", "--layout", "stereo"});
  EXPECT_EQ(raw.options.sampleRate, 44100);
  EXPECT_EQ(raw.options.layout.name, "2.0");
  // Nothing after a help word is read or cross-checked.
  EXPECT_EQ(parse({"--thx", "-h", "--nonsense"}).help, HelpRequest::normal);
  EXPECT_EQ(parse({"--help-dev", "--layout"}).help, HelpRequest::developer);
}

// Scripts compare the published text, odd spacing and placement included.
TEST(Help, TextShape) {
  const std::string normal = help_text(false), dev = help_text(true);
  EXPECT_EQ(normal.rfind("Tavrin-DTS 1.0.1.0 - Tavrin DTS Core Audio Encoder\n", 0), 0u);
  EXPECT_NE(normal.find("\n  -b, --bitrate <kbps>     Output bitrate: 768, 1024, 1152 or 1411\n" +
                        std::string(27, ' ') + "(1411 maps to 1411.2 kbps; default 768)\n"),
            std::string::npos);
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
