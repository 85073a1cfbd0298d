#pragma once
// A whole Core frame: header, payload, zero padding to the CBR size.
#include <cstdint>
#include <vector>

#include "bitstream/bit_writer.h"
#include "bitstream/frame_header.h"
#include "bitstream/subframe.h"

namespace tavrin {

struct CoreFrame {
  CoreFrameHeader header;
  FramePayload payload;
  std::vector<std::uint8_t> bytes;  // exactly target_bytes after write_frame
  std::uint32_t payload_bits = 0;   // header + payload, before byte alignment
};

// Chooses the overflow message: the stereo and multichannel encoders report
// an oversized payload in their own words.
enum class FrameKind { stereo, multichannel };

// Writes header and payload and pads with zero bytes to target_bytes.
// std::runtime_error "DTS payload exceeds target frame size" (stereo) or
// "5.1 DTS Core payload exceeds target frame" (multichannel) when the
// written bits do not fit; `frame.bytes` is left untouched on failure.
void write_frame(CoreFrame& frame, std::uint32_t target_bytes, FrameKind kind);

// The second half of write_frame, for an encoder that wrote header and
// payload into `w` itself (to check the payload's size on the way): records
// the bit count, checks the fit with the same messages, and moves the
// padded bytes into `frame.bytes`.
void finish_frame(CoreFrame& frame, BitWriter& w, std::uint32_t target_bytes, FrameKind kind);

}  // namespace tavrin
