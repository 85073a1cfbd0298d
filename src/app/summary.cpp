// What the stereo and multichannel drivers share: running an input through
// the frame loop, and the summary lines both print alike.
#include <cmath>
#include <cstdio>
#include <sstream>
#include <stdexcept>

#include "app/drivers.h"

namespace tavrin {

std::string fixed2(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.2f", value);
  return text;
}

void finish_output(std::ostream& out) {
  // The summary must not claim a stream that is not there.
  out.flush();
  if (!out) throw std::runtime_error("failed writing DTS output");
}

LoopTotals encode_input(std::ostream& out, const PcmInput& input, const EncoderOptions& options,
                        ProgressState* progress) {
  EncodeLoop loop = open_encode_loop(out, input.layout, input.sample_rate, options);
  input.read([&](PcmFrame& frame) {
    encode_pcm_frame(loop, frame);
    if (progress != nullptr) update_progress(*progress, kEncodingLabel, loop.totals.samples, input.total_samples);
  });
  finish_output(out);
  return finish_encode_loop(loop);
}

std::string output_line(const LoopTotals& totals, std::uint32_t bitrate) {
  std::ostringstream line;
  line << "Output: " << bitrate << " bit/s nominal, " << totals.smallest;
  if (totals.smallest != totals.largest) line << "-" << totals.largest;
  line << " bytes/frame, " << totals.frames << " DTS frames\n";
  return line.str();
}

std::string headroom_line(const LoopTotals& totals) {
  if (totals.headroom_frames == 0) return "";
  return "Headroom: level lowered by up to " + fixed2(-20.0 * std::log10(totals.headroom_least_gain)) + " dB in " +
         std::to_string(totals.headroom_frames) + " frames; the input's peaks exceed what DTS decoders carry\n";
}

double realized_bitrate(const LoopTotals& totals, std::uint32_t sample_rate) {
  if (totals.frames == 0) return 0.0;
  return static_cast<double>(totals.total_bytes) * 8.0 * static_cast<double>(sample_rate) /
         (static_cast<double>(totals.frames) * static_cast<double>(kPcmFrameSamples));
}

double average_active_bands(const LoopTotals& totals) {
  return totals.frames == 0 ? 0.0 : static_cast<double>(totals.active_total) / static_cast<double>(totals.frames);
}

std::string realized_line(const LoopTotals& totals, std::uint32_t sample_rate) {
  return "Realized average bitrate: " + fixed2(realized_bitrate(totals, sample_rate)) + " bit/s\n";
}

}  // namespace tavrin
