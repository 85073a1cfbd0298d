// Encode paths that this version does not offer yet. Each ends the run with a
// clear message (status 1) instead of pretending to succeed.
#include <stdexcept>

#include "app/drivers.h"

namespace tavrin {

namespace {
[[noreturn]] void not_available(const char* what) {
  throw std::runtime_error(std::string(what) + " is not available in this version yet");
}
}  // namespace

namespace {
void refuse_stereo_policies(const EncoderOptions& options) {
  if (options.legacy || options.productionCandidate || options.span24Given) {
    throw std::runtime_error("--legacy, --production-candidate and --experimental-span24 are stereo-only");
  }
}
}  // namespace

void encode_multichannel_stream(std::istream&, std::ostream&, const PcmSourceInfo&, const EncoderOptions& options) {
  refuse_stereo_policies(options);
  not_available("3.0/4.0/5.0/5.1 encoding");
}
void encode_multichannel_memory(std::ostream&, const PcmBuffer&, std::uint32_t, const EncoderOptions& options,
                                const std::string&) {
  refuse_stereo_policies(options);
  not_available("3.0/4.0/5.0/5.1 encoding");
}

void encode_matrix_stream(std::istream&, std::ostream&, const PcmSourceInfo&, const EncoderOptions&,
                          const std::string&, ProgressState&) {
  not_available("--matrix-decode");
}
void encode_matrix_memory(std::ostream&, const PcmBuffer&, std::uint32_t, const EncoderOptions&,
                          const std::string&) {
  not_available("--matrix-decode");
}

PcmBuffer decode_flac_file(const std::string&) { not_available("FLAC input"); }

}  // namespace tavrin
