#pragma once
// The 104-bit Core frame header (no header CRC is ever produced).
#include <cstdint>

namespace tavrin {

struct BitWriter;

struct CoreFrameHeader {
  std::uint8_t normal_frame = 1;      // FTYPE
  std::uint8_t deficit_samples = 31;  // SHORT, 5 bits
  std::uint8_t crc_present = 0;       // CPF; must stay 0
  std::uint8_t nblks = 31;            // 32-sample blocks minus 1
  std::uint16_t frame_bytes = 0;      // whole frame; FSIZE is this minus 1
  std::uint8_t amode = 2;
  std::uint32_t sample_rate = 48000;  // mapped to SFREQ
  std::uint32_t bitrate = 1411200;    // mapped to RATE
  std::uint8_t dynf = 0;
  std::uint8_t timef = 0;
  std::uint8_t auxf = 0;
  std::uint8_t hdcd = 0;
  std::uint8_t ext_audio_id = 0;  // 3 bits
  std::uint8_t ext_audio = 0;
  std::uint8_t aspf = 0;
  std::uint8_t lff = 0;  // 2 bits: 0 without LFE, 2 for the multichannel LFE
  std::uint8_t hflag = 0;
  std::uint8_t filts = 0;
  std::uint8_t vernum = 7;  // 4 bits
  std::uint8_t chist = 0;   // 2 bits
  std::uint32_t pcm_bits = 24;  // 16, 20 or 24, mapped to PCMR
  std::uint8_t pcm_es = 0;
  std::uint8_t sumf = 0;
  std::uint8_t sums = 0;
  std::uint8_t dialnorm = 0;  // 4 bits
};

// Fills the header of a frame made by this program's encoders: the caller's
// AMODE, rates and size, the perfect-reconstruction bank (FILTS 1), version
// 7, no copy history; HFLAG and LFF are the caller's to set.
void set_encoder_header(CoreFrameHeader& header, std::uint8_t amode, std::uint32_t sample_rate,
                               std::uint32_t bitrate, std::uint32_t frame_bytes);

// Size checks first ("frame size 96..16384", "NBLKS < 5",
// "CPF/HCRC generation disabled"), then the 104 bits; an unknown rate,
// bit rate or PCM resolution fails part-way through, when its field is due.
void write_header(BitWriter& writer, const CoreFrameHeader& header);

// Primary (full-band) channels of an AMODE code; "unsupported AMODE" above 9.
unsigned channels_for_amode(unsigned amode);

// Code tables of the header, exposed for the encoders' own checks.
// Both throw std::invalid_argument with the header's messages.
unsigned sfreq_code(std::uint32_t sample_rate);  // "unsupported DTS sample rate"
unsigned rate_code(std::uint32_t bitrate);       // "unsupported DTS bitrate"

}  // namespace tavrin
