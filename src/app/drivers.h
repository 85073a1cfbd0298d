#pragma once
// The encode paths the entry hands a job to. Each runs one input to a
// finished .dts stream and prints its summary; all report failures by
// throwing.
#include <cstdint>
#include <istream>
#include <ostream>
#include <string>

#include "app/frame_loop.h"
#include "app/options.h"
#include "app/progress.h"
#include "input/flac.h"
#include "input/pcm_source.h"

namespace tavrin {

// An input as the drivers see it: what the summary says of it, and how its
// frames are read.
struct PcmInput {
  ChannelLayout layout;
  std::uint32_t sample_rate = 0;
  std::string format_name;  // "s24le" for a stream, "<bits>-bit" for decoded audio
  std::string label;        // "WAVE", "WAVEFORMATEXTENSIBLE", "raw PCM", "FLAC"
  std::uint64_t total_samples = 0;  // per channel; 0 when unknown until the input ends
  PcmReader read;
};

// `in` must outlive the returned input; it stands at the first audio byte.
PcmInput stream_input(std::istream& in, const PcmSourceInfo& info);
// `buffer` must outlive the returned input.
PcmInput memory_input(const PcmBuffer& buffer, std::uint32_t sample_rate, const std::string& label);
// The encoding pass over a FLAC file the checking pass has described.
PcmInput flac_input(const std::string& path, const FlacStreamInfo& info);

// `progress`, when given, shows the encode's progress line.
void encode_stereo(std::ostream& out, const PcmInput& input, const EncoderOptions& options,
                   ProgressState* progress = nullptr);
void encode_stereo_stream(std::istream& in, std::ostream& out, const PcmSourceInfo& info,
                          const EncoderOptions& options, ProgressState* progress = nullptr);
void encode_stereo_memory(std::ostream& out, const PcmBuffer& buffer, std::uint32_t sample_rate,
                          const EncoderOptions& options, const std::string& input_label);

void encode_multichannel(std::ostream& out, const PcmInput& input, const EncoderOptions& options,
                         ProgressState* progress = nullptr);
void encode_multichannel_stream(std::istream& in, std::ostream& out, const PcmSourceInfo& info,
                                const EncoderOptions& options, ProgressState* progress = nullptr);
void encode_multichannel_memory(std::ostream& out, const PcmBuffer& buffer, std::uint32_t sample_rate,
                                const EncoderOptions& options, const std::string& input_label);

// The matrix path reads its input several times (two or three analysis
// passes, then the encoding pass): `input.read` must start from the first
// sample frame at every call.
void encode_matrix(std::ostream& out, const PcmInput& input, const EncoderOptions& options,
                   ProgressState& progress);
// `in` must be seekable: it is put back to the audio's start for every pass.
void encode_matrix_stream(std::istream& in, std::ostream& out, const PcmSourceInfo& info,
                          const EncoderOptions& options, const std::string& input_label, ProgressState& progress);
// The reference form: the whole bed made in memory, then encoded by the
// in-memory multichannel driver.
void encode_matrix_memory(std::ostream& out, const PcmBuffer& buffer, std::uint32_t sample_rate,
                          const EncoderOptions& options, const std::string& input_label);
void encode_matrix_flac(std::ostream& out, const std::string& path, const FlacStreamInfo& info,
                        const EncoderOptions& options, ProgressState& progress);

// Shared by the drivers: the frame loop over a whole input, and the summary
// lines they print alike ("Output: ...", "Realized average bitrate: ...",
// each with its line end; the latter only for a stream with frames).
LoopTotals encode_input(std::ostream& out, const PcmInput& input, const EncoderOptions& options,
                        ProgressState* progress);
// Flushes `out` and fails with "failed writing DTS output" when it refused
// bytes: a full disk shows only when the buffered frames reach it.
void finish_output(std::ostream& out);
std::string output_line(const LoopTotals& totals, std::uint32_t bitrate);
std::string realized_line(const LoopTotals& totals, std::uint32_t sample_rate);
// Bits per second the frames written carry (0 without frames), and the mean
// count of coded bands a frame.
double realized_bitrate(const LoopTotals& totals, std::uint32_t sample_rate);
double average_active_bands(const LoopTotals& totals);
// The note that the level had to be lowered somewhere, or "" when it was not.
std::string headroom_line(const LoopTotals& totals);
std::string fixed2(double value);

}  // namespace tavrin
