#pragma once
// The encode paths the entry hands a job to. Each runs one input to a
// finished .dts stream and prints its summary; all report failures by
// throwing.
#include <cstdint>
#include <istream>
#include <ostream>
#include <string>

#include "app/options.h"
#include "app/progress.h"
#include "input/pcm_source.h"

namespace tavrin {

void encode_stereo_stream(std::istream& in, std::ostream& out, const PcmSourceInfo& info,
                          const EncoderOptions& options);
void encode_stereo_memory(std::ostream& out, const PcmBuffer& buffer, std::uint32_t sample_rate,
                          const EncoderOptions& options, const std::string& input_label);

void encode_multichannel_stream(std::istream& in, std::ostream& out, const PcmSourceInfo& info,
                                const EncoderOptions& options);
void encode_multichannel_memory(std::ostream& out, const PcmBuffer& buffer, std::uint32_t sample_rate,
                                const EncoderOptions& options, const std::string& input_label);

void encode_matrix_stream(std::istream& in, std::ostream& out, const PcmSourceInfo& info,
                          const EncoderOptions& options, const std::string& input_label, ProgressState& progress);
void encode_matrix_memory(std::ostream& out, const PcmBuffer& buffer, std::uint32_t sample_rate,
                          const EncoderOptions& options, const std::string& input_label);

// Decodes a whole FLAC file into memory.
PcmBuffer decode_flac_file(const std::string& path);

}  // namespace tavrin
