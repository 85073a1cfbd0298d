#include "bitstream/bit_writer.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace tavrin {

void BitWriter::throw_width() { throw std::invalid_argument("bit width > 32"); }
void BitWriter::throw_fit() { throw std::invalid_argument("value does not fit bit width"); }

// Room for `bytes` more: the reserved capacity first, then the vector's own
// growth.
void BitWriter::grow(std::size_t bytes) { bytes_.resize(std::max(bytes_.capacity(), used_ + bytes)); }

// The partial byte that sync() appended is still held in the accumulator.
void BitWriter::drop_tail() {
  bytes_.pop_back();
  tail_in_bytes_ = false;
}

void BitWriter::sync() const {
  if (tail_in_bytes_) return;
  bytes_.resize(used_);
  while (pending_ >= 8) {
    pending_ -= 8;
    bytes_.push_back(static_cast<std::uint8_t>(acc_ >> pending_));
    ++used_;
  }
  if (pending_ > 0) {
    bytes_.push_back(static_cast<std::uint8_t>(acc_ << (8u - pending_)));
    tail_in_bytes_ = true;
  }
}

std::vector<std::uint8_t> BitWriter::take_bytes() {
  sync();
  std::vector<std::uint8_t> out = std::exchange(bytes_, {});
  used_ = 0;
  acc_ = 0;
  pending_ = 0;
  tail_in_bytes_ = false;
  bit_count_ = 0;
  return out;
}

}  // namespace tavrin
