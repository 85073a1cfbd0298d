#pragma once
// Shared by the bitstream, dsp and alloc tests.
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

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

// Message of the E that f throws, or a marker: a wrong exception class must
// not pass for the right message.
template <typename E = std::invalid_argument>
std::string message_of(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return dynamic_cast<const E*>(&e) ? e.what() : std::string("<other exception> ") + e.what();
  }
  return "<no exception>";
}

}  // namespace tavrin::test
