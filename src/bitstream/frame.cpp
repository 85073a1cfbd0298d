#include "bitstream/frame.h"

#include <stdexcept>
#include <utility>


namespace tavrin {

void write_frame(CoreFrame& frame, std::uint32_t target_bytes, FrameKind kind) {
  BitWriter w(target_bytes > BitWriter::kDefaultCapacity ? target_bytes : BitWriter::kDefaultCapacity);
  write_header(w, frame.header);
  write_payload(w, frame.payload);
  finish_frame(frame, w, target_bytes, kind);
}

void finish_frame(CoreFrame& frame, BitWriter& w, std::uint32_t target_bytes, FrameKind kind) {
  const std::uint32_t bits = w.bit_count();
  frame.payload_bits = bits;
  w.align_to_byte();
  if ((std::uint64_t{bits} + 7u) / 8u > target_bytes)
    throw std::runtime_error(kind == FrameKind::stereo ? "DTS payload exceeds target frame size"
                                                       : "5.1 DTS Core payload exceeds target frame");
  std::vector<std::uint8_t> bytes = w.take_bytes();
  bytes.resize(target_bytes, 0);
  frame.bytes = std::move(bytes);
}

}  // namespace tavrin
