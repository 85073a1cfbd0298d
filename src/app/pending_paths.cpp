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

void encode_matrix_stream(std::istream&, std::ostream&, const PcmSourceInfo&, const EncoderOptions&,
                          const std::string&, ProgressState&) {
  not_available("--matrix-decode");
}
void encode_matrix_memory(std::ostream&, const PcmBuffer&, std::uint32_t, const EncoderOptions&,
                          const std::string&) {
  not_available("--matrix-decode");
}
void encode_matrix_flac(std::ostream&, const std::string&, const FlacStreamInfo&, const EncoderOptions&) {
  not_available("--matrix-decode");
}

}  // namespace tavrin
