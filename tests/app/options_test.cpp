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
  std::vector<std::string> all = {"in.wav", "out.dts"};
  all.insert(all.end(), words.begin(), words.end());
  std::vector<const char*> argv;
  for (const auto& w : all) argv.push_back(w.c_str());
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

TEST(Options, Bitrates) {
  struct Case {
    std::string word;
    std::uint32_t rate;  // 0: expect the message
    std::string message;
  };
  const std::string unsupported = "unsupported bitrate; use 768, 1024, 1152 or 1411";
  const std::vector<Case> cases = {
      {"768", 768000, ""},          {"1024", 1024000, ""},         {"1152", 1152000, ""},
      {"1411", 1411200, ""},        {"1411.2", 1411200, ""},       {"1411200", 1411200, ""},
      {"1411200.4", 1411200, ""},   {"768000", 768000, ""},        {"767.99995", 768000, ""},
      {"1411.1", 0, unsupported},   {"96000", 0, unsupported},     {"1000000", 0, unsupported},
      {"767.999", 0, unsupported},  {"768k", 0, "invalid --bitrate value"},
      {"abc", 0, "invalid stod argument"},                         {"0", 0, "invalid --bitrate value"},
      {"-768", 0, "invalid --bitrate value"},                      {"inf", 0, "invalid --bitrate value"},
      {"nan", 0, "invalid --bitrate value"},                       {"1e999", 0, "stod argument out of range"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.word);
    if (c.rate != 0) {
      EXPECT_EQ(parse({"-b", c.word}).options.bitrate, c.rate);
      EXPECT_EQ(parse({"--bitrate", c.word}).options.bitrate, c.rate);
    } else {
      EXPECT_EQ(failure({"--bitrate", c.word}), c.message);
    }
  }
}

TEST(Options, WordMessages) {
  struct Case {
    std::vector<std::string> words;
    std::string message;
  };
  const std::vector<Case> cases = {
      {{"--bitrate"}, "--bitrate requires a value"},
      {{"--pcm-format"}, "--pcm-format requires a value"},
      {{"--pcm-format", "S16LE"}, "--pcm-format must be s16le, s24le, s32le or f32le"},
      {{"--sample-rate"}, "--sample-rate requires a value"},
      {{"--sample-rate", "abc"}, "invalid stoi argument"},
      {{"--sample-rate", "99999999999"}, "stoi argument out of range"},
      {{"--layout"}, "--layout requires a value"},
      {{"--layout", "7.1"}, "unsupported layout"},
      {{"--layout", "5.1 "}, "unsupported layout"},
      {{"--experimental-span24"},
       "--experimental-span24 requires absolute, absolute-tmode, absolute-jump, candidate, candidate-jump, log or "
       "mask"},
      {{"--experimental-span24", "fast"}, "unsupported experimental span24 mode"},
      {{"--crossover"}, "--crossover requires a value"},
      {{"--crossover", "x"}, "invalid stod argument"},
      {{"--rear-delay"}, "--rear-delay requires a value"},
      {{"--lfe-gain"}, "--lfe-gain requires a value"},
      {{"--lfe-gain", "1e400"}, "stod argument out of range"},
      {{"--frobnicate"}, "unknown option: --frobnicate"},
      {{"-Q"}, "unknown option: -Q"},
      {{"--bitrate=768"}, "unknown option: --bitrate=768"},
      // The first failing word ends parsing.
      {{"--nope", "--layout"}, "unknown option: --nope"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words.front());
    EXPECT_EQ(failure(c.words), c.message);
  }
}

TEST(Options, CrossRulesInOrder) {
  struct Case {
    std::vector<std::string> words;
    std::string message;
  };
  const std::vector<Case> cases = {
      {{"--experimental-span24", "log", "--production-candidate"},
       "--experimental-span24 and --production-candidate are mutually exclusive"},
      {{"--legacy", "--production-candidate", "--matrix-decode"},
       "--legacy and --production-candidate are mutually exclusive"},
      {{"--legacy", "--experimental-span24", "mask"}, "--legacy and --experimental-span24 are mutually exclusive"},
      {{"--bass-management"}, "--bass-management requires --matrix-decode"},
      {{"--thx"}, "--bass-management requires --matrix-decode"},
      {{"--crossover", "30"}, "--crossover requires --bass-management or --thx"},
      {{"--lfe-gain", "3"}, "--lfe-gain requires --bass-management"},
      {{"--matrix-decode", "--bass-management", "--crossover", "121"}, "crossover must be within 40..120 Hz"},
      {{"--matrix-decode", "--bass-management", "--lfe-gain", "7"}, "LFE gain must be within -12..+6 dB"},
      {{"--matrix-decode", "--bass-management", "--lfe-gain", "-12.5"}, "LFE gain must be within -12..+6 dB"},
      {{"--rear-delay", "50"}, "--rear-delay must be within 0..40 ms"},
      {{"--matrix-decode", "--rear-delay", "nan"}, "--rear-delay must be within 0..40 ms"},
      {{"--rear-delay", "10"}, "--rear-delay is only valid with --matrix-decode"},
      {{"--matrix-decode", "--thx", "--crossover", "90"},
       "THX mode fixes crossover at 80 Hz; remove the crossover override"},
      {{"--matrix-decode", "--legacy"}, "--matrix-decode cannot be combined with stereo encoder policy options"},
      {{"--raw", "--pcm-format", "s16le", "--layout", "2.0"},
       "--raw requires --pcm-format, --sample-rate and --layout"},
      {{"--raw", "--pcm-format", "s16le", "--layout", "2.0", "--sample-rate", "0"},
       "--raw requires --pcm-format, --sample-rate and --layout"},
      {{"--raw", "--pcm-format", "s16le", "--layout", "2.0", "--sample-rate", "96000"},
       "--sample-rate must be 44100 or 48000"},
      {{"--layout", "5.1"}, "--pcm-format, --sample-rate and --layout require --raw"},
      {{"--sample-rate", "48000"}, "--pcm-format, --sample-rate and --layout require --raw"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_EQ(failure(c.words), c.message);
  }
}

TEST(Options, AcceptedCombinations) {
  EXPECT_EQ(parse({}).options.bitrate, 768000u);
  // 0 means the option is absent.
  EXPECT_NO_THROW(parse({"--sample-rate", "0"}));
  EXPECT_NO_THROW(parse({"--lfe-gain", "0"}));
  // Boundaries are allowed.
  EXPECT_NO_THROW(parse({"--matrix-decode", "--bass-management", "--crossover", "40", "--lfe-gain", "-12"}));
  EXPECT_NO_THROW(parse({"--matrix-decode", "--bass-management", "--crossover", "120", "--lfe-gain", "6"}));
  EXPECT_NO_THROW(parse({"--matrix-decode", "--rear-delay", "0"}));
  EXPECT_NO_THROW(parse({"--matrix-decode", "--rear-delay", "40"}));

  const auto thx = parse({"--matrix-decode", "--thx", "--crossover", "80"}).options;
  EXPECT_TRUE(thx.bassManagement && thx.thx && thx.crossoverGiven);
  EXPECT_EQ(thx.crossoverHz, 80.0);

  const auto raw = parse({"--raw", "--pcm-format", "f32le", "--sample-rate", " +44100Hz", "--layout", "stereo",
                          "-q", "--bitrate", "1411"})
                       .options;
  EXPECT_TRUE(raw.raw && raw.pcmFormatGiven && raw.layoutGiven && raw.quiet);
  EXPECT_EQ(raw.pcmFormat, SampleFormat::f32le);
  EXPECT_EQ(raw.sampleRate, 44100);
  EXPECT_EQ(raw.layout.name, "2.0");
  EXPECT_EQ(raw.bitrate, 1411200u);

  // A later span24 mode overwrites scale and word but never clears the
  // transient flag.
  const auto span = parse({"--experimental-span24", "absolute-tmode", "--experimental-span24", "log"}).options;
  EXPECT_TRUE(span.span24Given && span.span24TransientMode);
  EXPECT_EQ(span.span24Scale, 1);
  EXPECT_EQ(span.span24Mode, "log");
  EXPECT_EQ(parse({"--experimental-span24", "mask"}).options.span24Scale, 2);
  // A value is taken as is even when it looks like an option.
  EXPECT_EQ(failure({"--layout", "--raw"}), "unsupported layout");
}

TEST(Options, HelpStopsParsing) {
  EXPECT_EQ(parse({"-q", "--help", "--nonsense"}).help, HelpRequest::normal);
  EXPECT_EQ(parse({"-h"}).help, HelpRequest::normal);
  EXPECT_EQ(parse({"--help-dev", "--layout"}).help, HelpRequest::developer);
  // Words before the help word are still checked.
  EXPECT_EQ(failure({"--nonsense", "--help"}), "unknown option: --nonsense");
  // No cross-checks run once help is asked for.
  EXPECT_EQ(parse({"--thx", "--help"}).help, HelpRequest::normal);
}

TEST(Help, TextShape) {
  const std::string normal = help_text(false);
  const std::string dev = help_text(true);
  EXPECT_EQ(normal.rfind("Tavrin-DTS 1.0.1.0 - Tavrin DTS Core Audio Encoder\n", 0), 0u);
  EXPECT_EQ(dev.rfind(normal, 0), 0u) << "developer help extends the normal help";
  EXPECT_NE(normal.find("\n      --help-dev            Show developer/experimental options\n\nWAVE input:\n"),
            std::string::npos);
  EXPECT_NE(normal.find("\n  -b, --bitrate <kbps>     Output bitrate: 768, 1024, 1152 or 1411\n" +
                        std::string(27, ' ') + "(1411 maps to 1411.2 kbps; default 768)\n"),
            std::string::npos);
  EXPECT_NE(normal.find("FLAC input:\n  Native 44.1/48 kHz, 2.0/3.0/4.0/5.0/5.1\n  Requires "), std::string::npos);
  EXPECT_NE(normal.find("\n  Stereo, or 3.0/4.0/5.0/5.1 WAVEFORMATEXTENSIBLE\n\nRaw PCM input:\n"),
            std::string::npos);
  const std::string tail =
      "\nCodec policy:\n  Stereo defaults to the stable legacy encoder.\n"
      "  3.0/4.0/5.0/5.1 use the adaptive multichannel Core path.\n";
  EXPECT_EQ(normal.substr(normal.size() - tail.size()), tail);
  EXPECT_EQ(dev.substr(normal.size()),
            "\nDeveloper options:\n      --experimental-span24 <mode>\n"
            "          modes: absolute, absolute-tmode, absolute-jump,\n"
            "                 candidate, candidate-jump, log, mask\n\n"
            "Experimental span24 modes are stereo-only.\n");
  EXPECT_EQ(normal.find("dev-matrix-memory-reference"), std::string::npos);
  // 44 lines plus 6 empty ones.
  EXPECT_EQ(std::count(normal.begin(), normal.end(), '\n'), 50);
}

}  // namespace
}  // namespace tavrin
