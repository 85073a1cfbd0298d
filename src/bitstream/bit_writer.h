#pragma once
// MSB-first bit packer through which every field of a frame is emitted.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace tavrin {

// Bit n of the stream lives in byte n / 8 at mask 0x80 >> (n % 8). Seen
// through bytes(), the sequence always holds exactly ceil(bit_count / 8)
// bytes and the unused low bits of the last byte are zero.
//
// Fields are gathered in a 64-bit accumulator and moved out four bytes at a
// time; bytes() brings the byte sequence up to date, so the accumulator is
// never visible from outside.
struct BitWriter {
  // The largest frame is 16384 bytes; reserving it up front means a frame is
  // written without a single reallocation.
  static constexpr std::size_t kDefaultCapacity = 16384;

  BitWriter() : BitWriter(kDefaultCapacity) {}
  explicit BitWriter(std::size_t capacity_bytes) { bytes_.reserve(capacity_bytes); }

  // Appends the low `width` bits of value, most significant first.
  // "bit width > 32" for width >= 33, "value does not fit bit width" when
  // value has bits at or above `width`; both checked before anything changes.
  void write(std::uint32_t value, unsigned width) {
    if (width > 32) throw_width();
    if (width < 32 && (value >> width) != 0) throw_fit();
    if (tail_in_bytes_) drop_tail();
    acc_ = (acc_ << width) | value;
    pending_ += width;
    bit_count_ += width;
    if (pending_ >= 32) flush_word();
  }
  // Zero bits up to the next byte boundary.
  void align_to_byte() { write(0, (8u - (bit_count_ & 7u)) & 7u); }

  const std::vector<std::uint8_t>& bytes() const {
    sync();
    return bytes_;
  }
  std::uint32_t bit_count() const { return bit_count_; }
  // Hands the bytes over and leaves the writer empty.
  std::vector<std::uint8_t> take_bytes();

 private:
  [[noreturn]] static void throw_width();
  [[noreturn]] static void throw_fit();
  void flush_word();
  void drop_tail();
  void sync() const;

  // Whole bytes already moved out of the accumulator, plus, after sync()
  // and until the next write, the partial last byte.
  mutable std::vector<std::uint8_t> bytes_;
  mutable std::uint64_t acc_ = 0;  // the low `pending_` bits are not in bytes_ yet
  mutable unsigned pending_ = 0;
  mutable bool tail_in_bytes_ = false;
  std::uint32_t bit_count_ = 0;
};

}  // namespace tavrin
