#include "alloc/adpcm_rate.h"

namespace tavrin {

// Every subband stays in direct coding for now, which keeps the allocator's
// plan unchanged and its bit count exact.
AdpcmRateResult allocate_adpcm_rates(const std::vector<const double*>& /*channels*/, FramePayload& /*payload*/,
                                     std::uint64_t allocated_bits, std::uint64_t /*budget_bits*/,
                                     AdpcmStreamState& /*state*/) {
  AdpcmRateResult result;
  result.payload_bits = allocated_bits;
  return result;
}

}  // namespace tavrin
