#pragma once
// MSB-first bit packer through which every field of a frame is emitted.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace tavrin {

// Bit n of the stream lives in byte n / 8 at mask 0x80 >> (n % 8). The byte
// sequence always holds exactly ceil(bit_count / 8) bytes; unused low bits of
// the last byte are zero.
struct BitWriter {
  // The largest frame is 16384 bytes; reserving it up front means a frame is
  // written without a single reallocation.
  static constexpr std::size_t kDefaultCapacity = 16384;

  BitWriter() : BitWriter(kDefaultCapacity) {}
  explicit BitWriter(std::size_t capacity_bytes) { bytes_.reserve(capacity_bytes); }

  // Appends the low `width` bits of value, most significant first.
  // "bit width > 32" for width >= 33, "value does not fit bit width" when
  // value has bits at or above `width`; both checked before anything changes.
  void write(std::uint32_t value, unsigned width);
  // Zero bits up to the next byte boundary.
  void align_to_byte();

  const std::vector<std::uint8_t>& bytes() const { return bytes_; }
  std::uint32_t bit_count() const { return bit_count_; }
  // Hands the bytes over and leaves the writer empty.
  std::vector<std::uint8_t> take_bytes();

 private:
  std::vector<std::uint8_t> bytes_;
  std::uint32_t bit_count_ = 0;
};

}  // namespace tavrin
