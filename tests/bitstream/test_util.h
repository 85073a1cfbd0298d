#pragma once
// Shared by the bitstream and dsp tests.
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "bitstream/primary_header.h"

namespace tavrin::test {

// MSB-first, the mirror of BitWriter.
struct BitReader {
  const std::vector<std::uint8_t>& bytes;
  std::size_t pos = 0;

  std::uint32_t read(unsigned width) {
    std::uint32_t v = 0;
    for (unsigned i = 0; i < width; ++i, ++pos) {
      if (pos / 8 >= bytes.size()) throw std::out_of_range("read past end");
      v = (v << 1) | ((bytes[pos / 8] >> (7 - pos % 8)) & 1u);
    }
    return v;
  }
  std::vector<std::uint32_t> read(const std::vector<unsigned>& widths) {
    std::vector<std::uint32_t> out;
    for (unsigned w : widths) out.push_back(read(w));
    return out;
  }
};

// Message of the E that f throws, or a marker if none (std::exception takes
// any standard exception).
template <typename E = std::invalid_argument>
std::string message_of(const std::function<void()>& f) {
  if constexpr (std::is_same_v<E, std::exception>) {
    try {
      f();
    } catch (const std::exception& e) {
      return e.what();
    }
  } else {
    try {
      f();
    } catch (const E& e) {
      return e.what();
    } catch (const std::exception& e) {
      return std::string("<other exception> ") + e.what();
    }
  }
  return "<no exception>";
}

// Linear codes, no joint intensity, the encoder's selectors, THUFF = channel.
inline PrimaryHeader primary_header(unsigned channels, std::uint8_t subs, std::uint8_t vqsub, std::uint8_t bhuff,
                                    std::uint8_t shuff, std::uint8_t subfs = 1) {
  using V = std::vector<std::uint8_t>;
  PrimaryHeader h{subfs, V(channels, subs), V(channels, vqsub), V(channels, 0), {}, V(channels, shuff),
                  V(channels, bhuff), std::vector<V>(channels, V{1, 3, 3, 3, 3, 7, 7, 7, 7, 7})};
  for (unsigned c = 0; c < channels; ++c) h.thuff.push_back(static_cast<std::uint8_t>(c % 4));
  return h;
}

}  // namespace tavrin::test
