#include "bitstream/bit_writer.h"

#include <stdexcept>
#include <utility>

namespace tavrin {

void BitWriter::throw_width() { throw std::invalid_argument("bit width > 32"); }
void BitWriter::throw_fit() { throw std::invalid_argument("value does not fit bit width"); }

void BitWriter::flush_word() {
  pending_ -= 32;
  const auto word = static_cast<std::uint32_t>(acc_ >> pending_);
  const std::uint8_t out[4] = {static_cast<std::uint8_t>(word >> 24), static_cast<std::uint8_t>(word >> 16),
                               static_cast<std::uint8_t>(word >> 8), static_cast<std::uint8_t>(word)};
  bytes_.insert(bytes_.end(), out, out + 4);
}

// The partial byte that sync() appended is still held in the accumulator.
void BitWriter::drop_tail() {
  bytes_.pop_back();
  tail_in_bytes_ = false;
}

void BitWriter::sync() const {
  if (tail_in_bytes_) return;
  while (pending_ >= 8) {
    pending_ -= 8;
    bytes_.push_back(static_cast<std::uint8_t>(acc_ >> pending_));
  }
  if (pending_ > 0) {
    bytes_.push_back(static_cast<std::uint8_t>(acc_ << (8u - pending_)));
    tail_in_bytes_ = true;
  }
}

std::vector<std::uint8_t> BitWriter::take_bytes() {
  sync();
  std::vector<std::uint8_t> out = std::exchange(bytes_, {});
  acc_ = 0;
  pending_ = 0;
  tail_in_bytes_ = false;
  bit_count_ = 0;
  return out;
}

}  // namespace tavrin
