#pragma once
// Reading back what the writers produced, and catching their messages.
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavrin::test {

// MSB-first reader over a byte sequence, the mirror of BitWriter.
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
  std::int32_t read_signed(unsigned width) {
    const std::uint32_t v = read(width);
    const std::int64_t half = std::int64_t{1} << (width - 1);
    return static_cast<std::int32_t>(v >= half ? static_cast<std::int64_t>(v) - 2 * half : v);
  }
};

// Reads fields of the given widths in order.
inline std::vector<std::uint32_t> read_fields(BitReader& r, const std::vector<unsigned>& widths) {
  std::vector<std::uint32_t> out;
  for (unsigned w : widths) out.push_back(r.read(w));
  return out;
}

// Message of the exception of type E that f throws, or a marker if none.
template <typename E = std::invalid_argument>
std::string message_of(const std::function<void()>& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  } catch (const std::exception& e) {
    return std::string("<other exception> ") + e.what();
  }
  return "<no exception>";
}

}  // namespace tavrin::test
