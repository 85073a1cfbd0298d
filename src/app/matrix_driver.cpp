// The matrix-decode encode: a stereo input made into a 5.1 bed (the matrix
// decoder, bass management when asked) and encoded as 5.1 Core. The
// streaming form measures the bed's peak in analysis passes before the
// encoding pass, so that the bed is lowered just enough never to clip,
// without holding more than a frame of audio.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>

#include "app/drivers.h"
#include "app/help.h"
#include "matrix/bed.h"

namespace tavrin {

namespace {

constexpr char kNotStereo[] = "--matrix-decode requires 2-channel stereo input";
constexpr std::array<SpeakerId, kBedChannels> kBedSpeakers = {SpeakerId::L,   SpeakerId::R,  SpeakerId::C,
                                                              SpeakerId::LFE, SpeakerId::SL, SpeakerId::SR};

// The coding-order slot of each bed channel in `layout` (5.1).
std::array<std::size_t, kBedChannels> bed_slots(const ChannelLayout& layout) {
  std::array<std::size_t, kBedChannels> slots{};
  for (std::size_t b = 0; b < kBedChannels; ++b) {
    for (std::size_t slot = 0; slot < layout.channel_count; ++slot) {
      if (layout.speakers[slot] == kBedSpeakers[b]) slots[b] = slot;
    }
  }
  return slots;
}

BedSettings bed_settings(const EncoderOptions& o, std::uint32_t sample_rate) {
  BedSettings s;
  s.sample_rate = sample_rate;
  s.rear_delay_ms = o.rearDelayMs;
  s.bass_management = o.bassManagement;
  s.crossover_hz = o.thx ? 80.0 : o.crossoverHz;
  s.lfe_gain_db = o.lfeGainDb;
  return s;
}

std::string number_text(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::string kbps_text(std::uint32_t bitrate) { return number_text("%g", bitrate / 1000.0); }

// What the analysis passes learn of the bed.
struct BedAnalysis {
  MatrixStats stats;
  float peak = 0.0f;
  double gain = 1.0;  // what the encoding pass multiplies the bed by
};

// The bed's samples as the frame loop takes them. One formula for every form
// of the driver, so that they all encode the same numbers.
double bed_sample(float x, double gain) { return static_cast<double>(x) * gain; }

double clip_safe_gain(float peak) { return peak > 1.0f ? 1.0 / static_cast<double>(peak) : 1.0; }

// Runs the whole input through a fresh bed stage, handing every block of bed
// (the flushed surround tail last) to `use`, and reports progress in input
// sample frames.
template <typename Use>
MatrixStats run_bed_pass(const PcmInput& input, const BedSettings& settings, ProgressState& progress,
                         std::string_view label, Use&& use) {
  BedStage stage = open_bed_stage(settings);
  std::uint64_t done = 0;
  input.read([&](PcmFrame& frame) {
    if (frame.channels.size() != 2) throw std::runtime_error(kNotStereo);
    use(decode_bed(stage, frame.channels[0].data(), frame.channels[1].data(), frame.count));
    done += frame.count;
    update_progress(progress, label, done, input.total_samples);
  });
  use(flush_bed(stage));
  // An input whose length was not known up front finishes its line here.
  update_progress(progress, label, done, done);
  return matrix_stats(stage.decoder);
}

BedAnalysis analyse_bed(const PcmInput& input, const BedSettings& settings, ProgressState& progress,
                        std::string_view label) {
  BedAnalysis a;
  a.stats = run_bed_pass(input, settings, progress, label,
                         [&a](const BedChannels& bed) { a.peak = std::max(a.peak, bed_peak(bed)); });
  a.gain = clip_safe_gain(a.peak);
  return a;
}

// Bed blocks of any length, collected into the loop's 1024-sample frames.
struct BedFrames {
  PcmFrame frame;
  std::array<std::size_t, kBedChannels> slot_of_bed{};
};

BedFrames open_bed_frames(const ChannelLayout& layout) {
  BedFrames f;
  f.slot_of_bed = bed_slots(layout);
  f.frame.channels.assign(kBedChannels, std::vector<double>(kPcmFrameSamples));
  return f;
}

// The loop pads a short frame back to 1024 samples itself.
void emit_bed_frame(EncodeLoop& loop, BedFrames& f) {
  for (auto& channel : f.frame.channels) channel.resize(f.frame.count);
  encode_pcm_frame(loop, f.frame);
  f.frame.count = 0;
}

void push_bed(EncodeLoop& loop, BedFrames& f, const BedChannels& bed, double gain) {
  const std::size_t n = bed[0].size();
  for (std::size_t at = 0; at < n;) {
    const std::size_t take = std::min(kPcmFrameSamples - f.frame.count, n - at);
    for (std::size_t b = 0; b < kBedChannels; ++b) {
      double* to = f.frame.channels[f.slot_of_bed[b]].data() + f.frame.count;
      for (std::size_t i = 0; i < take; ++i) to[i] = bed_sample(bed[b][at + i], gain);
    }
    f.frame.count += take;
    at += take;
    if (f.frame.count == kPcmFrameSamples) emit_bed_frame(loop, f);
  }
}

void print_header(const PcmInput& input, const EncoderOptions& o, const BedSettings& s) {
  std::ostream& out = std::cout;
  out << kBanner << "\n";
  out << "Input: " << input.sample_rate << " Hz, 2 ch (2.0, " << input.label << ")\n";
  out << "Mode:       Matrix surround decode -> 5.1 DTS Core\n";
  if (s.bass_management) {
    out << "Bass:       LR4 bass management, crossover " << number_text("%g", s.crossover_hz) << " Hz"
        << (o.thx ? " (THX fixed)" : "") << ", LFE gain " << number_text("%.1f", s.lfe_gain_db) << " dB\n";
  }
  out << "DTS:        " << kbps_text(o.bitrate) << " kbps Core\n";
  out.flush();
}

std::string steering_text(const MatrixStats& stats) {
  return ", max C steer " + number_text("%.3f", stats.peak_centre) + ", max S steer " +
         number_text("%.3f", stats.peak_surround) + ", rear delay " + number_text("%g", stats.rear_delay_ms) +
         " ms";
}

void print_closing(const LoopTotals& t, const PcmInput& input, const EncoderOptions& o, const BedSettings& s,
                   const BedAnalysis& a) {
  std::ostream& out = std::cout;
  out << "Matrix:     streaming stereo -> L/C/R/S discrete bed; LFE "
      << (s.bass_management ? "bass-managed" : "silent") << steering_text(a.stats) << "\n";
  out << "Processing: stateful streaming matrix preprocess -> " << (s.bass_management ? "LR4 bass management -> " : "")
      << "bed gain " << number_text("%.2f", 20.0 * std::log10(a.gain)) << " dB -> 5.1 DTS Core\n";
  out << "DTS:        " << input.sample_rate << " Hz\n";
  out << "Streaming: " << kbps_text(o.bitrate) << " kbps CBR Core, AMODE 9 + LFF2\n";
  out << "Frames:     " << t.frames << " DTS frame(s)\n";
  out << "Realized: " << fixed2(realized_bitrate(t, input.sample_rate) / 1000.0) << " kbps average\n";
  out << "Bands:      active min/avg/max " << t.active_min << "/" << fixed2(average_active_bands(t)) << "/"
      << t.active_max << "\n";
  out << "Padding: " << t.padding << " final sample(s)/channel\n";
  out << headroom_line(t);
  out.flush();
}

}  // namespace

void encode_matrix(std::ostream& out, const PcmInput& input, const EncoderOptions& options,
                   ProgressState& progress) {
  if (input.layout.name != "2.0") throw std::runtime_error(kNotStereo);
  const BedSettings settings = bed_settings(options, input.sample_rate);
  print_header(input, options, settings);

  BedSettings matrix_only = settings;
  matrix_only.bass_management = false;
  BedAnalysis analysis = analyse_bed(input, matrix_only, progress, "Matrix analysis");
  // With bass management the bed that is encoded is the bass-managed one:
  // its own peak sets the gain, replacing the matrix pass's.
  if (settings.bass_management) analysis = analyse_bed(input, settings, progress, "Bass analysis");

  const ChannelLayout layout = *parse_layout_name("5.1");
  EncodeLoop loop = open_encode_loop(out, layout, input.sample_rate, options);
  BedFrames frames = open_bed_frames(loop.layout);
  run_bed_pass(input, settings, progress, kEncodingLabel,
               [&](const BedChannels& bed) { push_bed(loop, frames, bed, analysis.gain); });
  if (frames.frame.count > 0) emit_bed_frame(loop, frames);
  finish_output(out);
  print_closing(finish_encode_loop(loop), input, options, settings, analysis);
}

void encode_matrix_stream(std::istream& in, std::ostream& out, const PcmSourceInfo& info,
                          const EncoderOptions& options, const std::string& input_label, ProgressState& progress) {
  if (info.layout.name != "2.0") throw std::runtime_error(kNotStereo);
  PcmInput input = stream_input(in, info);
  input.label = input_label;
  input.read = [&in, info](const PcmFrameSink& sink) {
    in.clear();
    in.seekg(static_cast<std::streamoff>(info.data_offset), std::ios::beg);
    if (!in) throw std::runtime_error("failed to rewind PCM input");
    read_stream_frames(in, info, sink);
  };
  encode_matrix(out, input, options, progress);
}

void encode_matrix_flac(std::ostream& out, const std::string& path, const FlacStreamInfo& info,
                        const EncoderOptions& options, ProgressState& progress) {
  encode_matrix(out, flac_input(path, info), options, progress);
}

void encode_matrix_memory(std::ostream& out, const PcmBuffer& buffer, std::uint32_t sample_rate,
                          const EncoderOptions& options, const std::string& input_label) {
  if (buffer.channels.size() != 2) throw std::runtime_error(kNotStereo);
  if (buffer.channels[0].size() != buffer.channels[1].size()) {
    throw std::runtime_error("stereo channel length mismatch");
  }
  const BedSettings settings = bed_settings(options, sample_rate);
  BedStage stage = open_bed_stage(settings);
  BedChannels whole = decode_bed(stage, buffer.channels[0].data(), buffer.channels[1].data(),
                                 buffer.channels[0].size());
  const BedChannels& tail = flush_bed(stage);
  for (std::size_t b = 0; b < kBedChannels; ++b) whole[b].insert(whole[b].end(), tail[b].begin(), tail[b].end());
  const double gain = clip_safe_gain(bed_peak(whole));

  PcmBuffer bed;
  bed.sample_rate = sample_rate;
  bed.bits_per_sample = buffer.bits_per_sample;
  bed.layout = *parse_layout_name("5.1");
  bed.channels.resize(kBedChannels);
  const auto slots = bed_slots(bed.layout);
  for (std::size_t b = 0; b < kBedChannels; ++b) {
    std::vector<double>& to = bed.channels[slots[b]];
    to.reserve(whole[b].size());
    for (float x : whole[b]) to.push_back(bed_sample(x, gain));
    std::vector<float>().swap(whole[b]);
  }
  std::cout << "Matrix:     stereo -> L/C/R/S discrete bed; LFE "
            << (settings.bass_management ? "from bass management" : "silent") << steering_text(matrix_stats(stage.decoder))
            << "\n";
  encode_multichannel_memory(out, bed, sample_rate, options, input_label);
}

}  // namespace tavrin
