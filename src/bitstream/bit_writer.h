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
  // Appends values[0..count) as `width`-bit fields (1..31), each the low
  // `width` bits of the value's two's complement. The caller has checked
  // that the values are in range. The fields go through local copies of
  // the accumulator: a long run of audio samples then never waits on the
  // byte stores.
  void write_signed_run(const std::int32_t* values, std::size_t count, unsigned width) {
    if (tail_in_bytes_) drop_tail();
    const std::size_t words = (count * width + pending_) / 32;
    if (bytes_.size() < used_ + 4 * words) grow(4 * words);
    std::uint8_t* out = bytes_.data() + used_;
    const std::uint32_t mask = (std::uint32_t{1} << width) - 1u;
    std::uint64_t acc = acc_;
    unsigned pending = pending_;
    for (std::size_t i = 0; i < count; ++i) {
      acc = (acc << width) | (static_cast<std::uint32_t>(values[i]) & mask);
      pending += width;
      if (pending >= 32) {
        pending -= 32;
        const auto word = static_cast<std::uint32_t>(acc >> pending);
        out[0] = static_cast<std::uint8_t>(word >> 24);
        out[1] = static_cast<std::uint8_t>(word >> 16);
        out[2] = static_cast<std::uint8_t>(word >> 8);
        out[3] = static_cast<std::uint8_t>(word);
        out += 4;
      }
    }
    acc_ = acc;
    pending_ = pending;
    used_ += 4 * words;
    bit_count_ += static_cast<std::uint32_t>(count * width);
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
  void flush_word() {
    pending_ -= 32;
    const auto word = static_cast<std::uint32_t>(acc_ >> pending_);
    if (bytes_.size() < used_ + 4) grow(4);
    std::uint8_t* out = bytes_.data() + used_;
    out[0] = static_cast<std::uint8_t>(word >> 24);
    out[1] = static_cast<std::uint8_t>(word >> 16);
    out[2] = static_cast<std::uint8_t>(word >> 8);
    out[3] = static_cast<std::uint8_t>(word);
    used_ += 4;
  }
  void grow(std::size_t bytes);
  void drop_tail();
  void sync() const;

  // The first `used_` bytes are whole bytes already moved out of the
  // accumulator. Between writes the vector is kept longer, as room for the
  // next words; sync() cuts it to `used_` and adds what the accumulator
  // holds, the partial last byte included, which stays there until the next
  // write.
  mutable std::vector<std::uint8_t> bytes_;
  mutable std::size_t used_ = 0;
  mutable std::uint64_t acc_ = 0;  // the low `pending_` bits are not in bytes_ yet
  mutable unsigned pending_ = 0;
  mutable bool tail_in_bytes_ = false;
  std::uint32_t bit_count_ = 0;
};

}  // namespace tavrin
