#include "bitstream/bit_writer.h"

#include <stdexcept>
#include <utility>

namespace tavrin {

void BitWriter::write(std::uint32_t value, unsigned width) {
  if (width > 32) throw std::invalid_argument("bit width > 32");
  if (width < 32 && (value >> width) != 0) throw std::invalid_argument("value does not fit bit width");
  if (width == 0) return;

  // Work in 64 bits so that shifts by the full width stay defined.
  const std::uint64_t v = value;
  unsigned left = width;
  const unsigned used = bit_count_ & 7u;
  if (used != 0) {
    // Fill the free low bits of the partial last byte first.
    const unsigned free_bits = 8u - used;
    const unsigned take = left < free_bits ? left : free_bits;
    const auto chunk = static_cast<unsigned>((v >> (left - take)) & ((1u << take) - 1u));
    bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | (chunk << (free_bits - take)));
    left -= take;
  }
  while (left >= 8) {
    left -= 8;
    bytes_.push_back(static_cast<std::uint8_t>(v >> left));
  }
  if (left > 0) {
    const auto chunk = static_cast<unsigned>(v & ((1u << left) - 1u));
    bytes_.push_back(static_cast<std::uint8_t>(chunk << (8u - left)));
  }
  bit_count_ += width;
}

void BitWriter::align_to_byte() { bit_count_ = static_cast<std::uint32_t>(bytes_.size()) * 8u; }

std::vector<std::uint8_t> BitWriter::take_bytes() {
  bit_count_ = 0;
  return std::exchange(bytes_, {});
}

}  // namespace tavrin
