// --matrix-decode end to end: the real program makes a 5.1 stream from a
// stereo file, the decoders play it, and every speaker carries what the
// matrix (and bass management) put there: centre-panned sound in the
// centre, out-of-phase sound in both surrounds after the rear delay, bass in
// the LFE only when bass management is on. The expected bed comes from the
// library's own decoder, so each channel is also held to unity gain.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <numbers>
#include <string>
#include <vector>

#include "matrix/bed.h"
#include "support/encode.h"
#include "support/wav_writer.h"

namespace tavrin {
namespace {

namespace fs = std::filesystem;
using test::Channels;

using test::kCodecDelay;
enum Bed : std::size_t { L, R, C, LFE, LS, RS };

double tone(double hz, std::size_t i, std::uint32_t rate) {
  return std::sin(2.0 * std::numbers::pi * hz * static_cast<double>(i) / rate);
}

Channels stereo(std::size_t n, const std::function<double(std::size_t)>& left,
                const std::function<double(std::size_t)>& right) {
  Channels c(2, std::vector<double>(n));
  for (std::size_t i = 0; i < n; ++i) {
    c[0][i] = left(i);
    c[1][i] = right(i);
  }
  return test::as_stored(c, SampleFormat::s24le);
}

// The bed the encoder is meant to code (gain 1: these inputs never clip).
Channels model_bed(const Channels& in, const BedSettings& settings) {
  BedStage stage = open_bed_stage(settings);
  Channels bed(kBedChannels);
  const auto append = [&bed](const BedChannels& part) {
    for (std::size_t c = 0; c < kBedChannels; ++c) bed[c].insert(bed[c].end(), part[c].begin(), part[c].end());
  };
  append(decode_bed(stage, in[0].data(), in[1].data(), in[0].size()));
  append(flush_bed(stage));
  return bed;
}

double rms_db(const std::vector<float>& x, std::size_t from, std::size_t to) {
  double sum = 0.0;
  for (std::size_t i = from; i < to; ++i) sum += static_cast<double>(x[i]) * x[i];
  return 10.0 * std::log10(sum / static_cast<double>(to - from) + 1e-30);
}

// Encodes with the checks every encode must pass; the bed holds
// `bed_samples` (the input and the rear delay's tail).
test::Encoded encode(const fs::path& wav, std::uint32_t rate, std::size_t bed_samples, std::vector<std::string> options) {
  options.insert(options.begin(), "--matrix-decode");
  return test::encode_file(wav, {rate, 768000, bed_samples, kBedChannels, "5.1(side)"}, options);
}

struct Case {
  const char* name;
  std::uint32_t rate;
  std::vector<std::string> options;
  std::function<double(std::size_t)> left, right;
  // Level of each decoded channel over the settled second half, dB re the
  // input's left channel; below -200 means "silent" (under -60 dB).
  std::array<double, kBedChannels> level;
  double rear_delay_ms;
  std::string bass;    // the summary's "Bass:" line; empty: none
  std::string matrix;  // the summary's "Matrix:" line after "discrete bed; "
};

TEST(MatrixEncode, EachSoundComesOutOfItsSpeaker) {
  const fs::path dir = test::fresh_test_dir("matrix");
  constexpr double kSilent = -300.0;
  const double plus3 = 20.0 * std::log10(std::sqrt(2.0));
  const auto music = [](std::uint32_t rate, double sign = 1.0) {
    return [rate, sign](std::size_t i) { return sign * (0.3 * tone(997.0, i, rate) + 0.1 * tone(3301.0, i, rate)); };
  };
  // 30 Hz bass with 1 kHz on the left, an unrelated 1.5 kHz on the right:
  // nothing is steered, so the bass stays with the left until bass
  // management moves it.
  const auto bass_left = [](std::uint32_t rate) {
    return [rate](std::size_t i) { return 0.4 * tone(30.0, i, rate) + 0.2 * tone(1000.0, i, rate); };
  };
  const auto treble_right = [](std::uint32_t rate) { return [rate](std::size_t i) { return 0.2 * tone(1500.0, i, rate); }; };
  const double bass_left_db = 20.0 * std::log10(std::sqrt(0.4 * 0.4 + 0.2 * 0.2));
  const double bass_db = 20.0 * std::log10(0.4) - bass_left_db;
  const double mid_db = 20.0 * std::log10(0.2) - bass_left_db;
  // The 30 Hz tone through the 80 Hz LR4 low path: -0.17 dB.
  const double lr4_30 = 20.0 * std::log10(1.0 / (1.0 + std::pow(30.0 / 80.0, 4.0)));
  const std::string managed = "Bass:       LR4 bass management, crossover 80 Hz";
  const std::vector<Case> cases = {
      {"centre", 48000, {}, music(48000), music(48000), {kSilent, kSilent, plus3, kSilent, kSilent, kSilent}, 20.0, "",
       "LFE silent, max C steer 1.000, max S steer 0.000, rear delay 20 ms"},
      {"surround", 48000, {"--rear-delay", "12.5"}, music(48000), music(48000, -1.0),
       {kSilent, kSilent, kSilent, kSilent, 0.0, 0.0}, 12.5, "",
       "LFE silent, max C steer 0.000, max S steer 1.000, rear delay 12.5 ms"},
      {"bass kept", 44100, {}, bass_left(44100), treble_right(44100),
       {0.0, mid_db, kSilent, kSilent, kSilent, kSilent}, 20.0, "",
       "LFE silent, max C steer 0.019, max S steer 0.000, rear delay 20 ms"},
      {"bass managed", 44100, {"--bass-management", "--crossover", "80", "--lfe-gain", "-4.5", "--rear-delay", "0"},
       bass_left(44100), treble_right(44100), {mid_db, mid_db, kSilent, bass_db - 4.5 + lr4_30, kSilent, kSilent}, 0.0,
       managed + ", LFE gain -4.5 dB", "LFE bass-managed, max C steer 0.019, max S steer 0.000, rear delay 0 ms"},
      {"thx", 48000, {"--thx"}, bass_left(48000), treble_right(48000),
       {mid_db, mid_db, kSilent, bass_db + lr4_30, kSilent, kSilent}, 20.0, managed + " (THX fixed), LFE gain 0.0 dB",
       "LFE bass-managed, max C steer 0.019, max S steer 0.000, rear delay 20 ms"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::size_t n = c.rate * 2;
    const Channels in = stereo(n, c.left, c.right);
    const fs::path wav = dir / (std::string(c.name) + ".wav");
    write_wav_file(wav.string(), in, c.rate, SampleFormat::s24le);
    const std::size_t d = static_cast<std::size_t>(std::llround(c.rear_delay_ms * c.rate / 1000.0));
    const test::Encoded r = encode(wav, c.rate, n + d, c.options);
    if (r.decoded.channels.size() != kBedChannels) continue;

    BedSettings settings;
    settings.sample_rate = c.rate;
    settings.rear_delay_ms = c.rear_delay_ms;
    settings.bass_management = !c.bass.empty();
    settings.lfe_gain_db = c.name == std::string("bass managed") ? -4.5 : 0.0;
    const Channels bed = model_bed(in, settings);
    const double input_db = rms_db(std::vector<float>(in[0].begin(), in[0].end()), n / 2, n);
    for (std::size_t ch = 0; ch < kBedChannels; ++ch) {
      SCOPED_TRACE("channel " + std::to_string(ch));
      const auto& out = r.decoded.channels[ch];
      const double level = rms_db(out, kCodecDelay + n / 2, kCodecDelay + n) - input_db;
      if (c.level[ch] < -200.0) {
        EXPECT_LT(level, -60.0);
        continue;
      }
      EXPECT_NEAR(level, c.level[ch], ch == LFE ? 0.5 : 0.3);  // the LFE coder's own tolerance
      // Against the model bed: the mains at exactly the codec's delay and
      // unity gain, the LFE within its coder's alignment and level.
      if (ch == LFE) {
        test::expect_lfe_matches(bed[ch], out);
      } else {
        test::expect_unity(bed[ch], out, 30.0);
      }
    }
    // The surround is the input's difference signal, late by the rear delay.
    if (c.level[LS] > -200.0) {
      EXPECT_EQ(test::best_delay(in[0], r.decoded.channels[LS], kCodecDelay, kCodecDelay + 1000), kCodecDelay + d);
    }
    const auto lines = test::lines(r.run.out);
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[3].rfind("Bass:", 0) == 0 ? lines[3] : "", c.bass);
    EXPECT_NE(r.run.out.find("\nMatrix:     streaming stereo -> L/C/R/S discrete bed; " + c.matrix + "\n"),
              std::string::npos) << r.run.out;
    EXPECT_NE(r.run.out.find("Padding: " + std::to_string((n + d + 1023) / 1024 * 1024 - n - d) +
                             " final sample(s)/channel\n"),
              std::string::npos);
  }
}

// A full-scale centre-panned signal makes a centre of +3 dB; bass management
// with +6 dB of LFE gain makes a louder LFE still. The bed is lowered just
// enough, so the decoded channels stay within full scale.
TEST(MatrixEncode, FullScaleInputDoesNotClip) {
  const fs::path dir = test::fresh_test_dir("matrix-clip");
  const std::uint32_t rate = 48000;
  const std::size_t n = rate;
  for (const bool bass : {false, true}) {
    SCOPED_TRACE(bass ? "bass managed" : "matrix only");
    const auto full = [](std::size_t i) { return 0.999 * tone(50.0, i, 48000); };
    const Channels in = stereo(n, full, full);
    const fs::path wav = dir / (bass ? "bass.wav" : "plain.wav");
    write_wav_file(wav.string(), in, rate, SampleFormat::s24le);
    std::vector<std::string> options;
    if (bass) options = {"--bass-management", "--lfe-gain", "6"};
    const test::Encoded r = encode(wav, rate, n + 960, options);
    double peak = 0.0;
    for (const auto& ch : r.decoded.channels) {
      for (float x : ch) peak = std::max(peak, std::abs(static_cast<double>(x)));
    }
    EXPECT_LE(peak, 1.0 + 1e-3);
    EXPECT_GT(peak, 0.9);  // lowered, not crushed
    EXPECT_NE(r.run.out.find("bed gain -"), std::string::npos) << r.run.out;
  }
}

// The streaming driver (WAVE or FLAC, read again for every pass) and the
// in-memory reference make the same bed, so they write the same stream.
TEST(MatrixEncode, StreamingMemoryAndFlacFormsAgree) {
  if (!test::program_available("flac")) GTEST_SKIP() << "flac not installed";
  const fs::path dir = test::fresh_test_dir("matrix-forms");
  const std::uint32_t rate = 44100;
  const std::size_t n = 3 * 1024 + 77;
  const Channels in = stereo(
      n, [](std::size_t i) { return 0.5 * tone(60.0, i, 44100) + 0.3 * tone(2000.0, i, 44100); },
      [](std::size_t i) { return 0.5 * tone(60.0, i, 44100) - 0.3 * tone(2000.0, i, 44100) * (i > 2000 ? 1 : 0); });
  const fs::path wav = dir / "in.wav", flac = dir / "in.flac";
  write_wav_file(wav.string(), in, rate, SampleFormat::s24le);
  ASSERT_EQ(test::run_command({"flac", "-s", "-f", "-o", flac.string(), wav.string()}).exit_status, 0);
  const std::vector<std::string> options = {"--matrix-decode", "--bass-management", "--rear-delay", "33", "-q"};
  const auto run = [&](const fs::path& input, const char* out, std::vector<std::string> extra) {
    std::vector<std::string> args = {input.string(), (dir / out).string()};
    args.insert(args.end(), options.begin(), options.end());
    args.insert(args.end(), extra.begin(), extra.end());
    const auto r = test::run_tavrin(args);
    EXPECT_EQ(r.exit_status, 0) << r.err;
    return test::read_bytes(dir / out);
  };
  const auto streamed = run(wav, "stream.dts", {});
  EXPECT_EQ(streamed.size(), test::expected_stream_bytes(rate, 768000, n + 1455));
  EXPECT_EQ(run(wav, "memory.dts", {"--dev-matrix-memory-reference"}), streamed);
  EXPECT_EQ(run(flac, "flac.dts", {}), streamed);
}

// What the program writes to standard output when that is a terminal, as
// script(1) gives it one; `args` are quoted for the shell.
std::string run_on_terminal(const std::string& args) {
  std::string line = "'" TAVRIN_BINARY "' ";
  line += args;
  return test::run_command({"script", "-qfec", line, "/dev/null"}).out;
}

// A plain encode draws its progress line for a person at a terminal (into
// a pipe it draws none, and the matrix path always: tests/app/cli_test.cpp).
TEST(MatrixEncode, ProgressLineOnlyWhereSomeoneWatches) {
  const fs::path dir = test::fresh_test_dir("progress");
  const Channels in = stereo(5000, [](std::size_t i) { return 0.1 * tone(440.0, i, 48000); },
                             [](std::size_t i) { return 0.1 * tone(660.0, i, 48000); });
  const fs::path wav = dir / "in.wav", dts = dir / "out.dts";
  write_wav_file(wav.string(), in, 48000, SampleFormat::s16le);
  std::string files = test::shell_quoted(wav);
  files += ' ';
  files += test::shell_quoted(dts);
  const std::string terminal = run_on_terminal(files);
  EXPECT_NE(terminal.find("\rEncoding        [############################] 100.0%"), std::string::npos) << terminal;
  EXPECT_NE(terminal.find("Path: legacy ADPCM rate"), std::string::npos) << terminal;
  EXPECT_EQ(run_on_terminal(files + " -q"), "");

  // A pipe cannot be read again for the encoding pass.
  const auto pipe = test::run_shell("cat " + test::shell_quoted(wav) + " | $T - " + test::shell_quoted(dts) + " --matrix-decode");
  EXPECT_EQ(pipe.exit_status, 1);
  EXPECT_EQ(pipe.err, "Tavrin-DTS: --matrix-decode input must be a file, not a pipe: standard input\n");
}

}  // namespace
}  // namespace tavrin
