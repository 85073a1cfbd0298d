#include "bitstream/frame_header.h"

#include <array>
#include <stdexcept>
#include <utility>

#include "bitstream/bit_writer.h"

namespace tavrin {

namespace {

constexpr std::uint32_t kSyncWord = 0x7FFE8001u;

constexpr std::array<std::pair<std::uint32_t, unsigned>, 9> kSfreqCodes = {{
    {8000, 1}, {16000, 2}, {32000, 3}, {11025, 6}, {22050, 7}, {44100, 8}, {12000, 11}, {24000, 12}, {48000, 13},
}};

// The format's table goes beyond 1536 kbit/s, but the program never needs
// more than this.
constexpr std::array<std::uint32_t, 25> kRates = {
    32000,  56000,  64000,  96000,  112000, 128000,  192000,  224000,  256000,  320000,  384000,  448000, 512000,
    576000, 640000, 768000, 960000, 1024000, 1152000, 1280000, 1344000, 1408000, 1411200, 1472000, 1536000,
};

unsigned flag(std::uint8_t v) { return v != 0 ? 1u : 0u; }

unsigned pcmr_code(std::uint32_t pcm_bits, bool es) {
  switch (pcm_bits) {
    case 16: return es ? 1u : 0u;
    case 20: return es ? 3u : 2u;
    case 24: return es ? 5u : 6u;
    default: throw std::invalid_argument("PCM bits must be 16,20,24");
  }
}

}  // namespace

unsigned sfreq_code(std::uint32_t sample_rate) {
  for (const auto& [rate, code] : kSfreqCodes)
    if (rate == sample_rate) return code;
  throw std::invalid_argument("unsupported DTS sample rate");
}

unsigned rate_code(std::uint32_t bitrate) {
  for (unsigned i = 0; i < kRates.size(); ++i)
    if (kRates[i] == bitrate) return i;
  throw std::invalid_argument("unsupported DTS bitrate");
}

unsigned channels_for_amode(unsigned amode) {
  switch (amode) {
    case 0: return 1;
    case 1: case 2: case 3: case 4: return 2;
    case 5: case 6: return 3;
    case 7: case 8: return 4;
    case 9: return 5;
    default: throw std::runtime_error("unsupported AMODE");
  }
}

void write_header(BitWriter& w, const CoreFrameHeader& h) {
  if (h.frame_bytes < 96 || h.frame_bytes > 16384) throw std::invalid_argument("frame size 96..16384");
  if (h.nblks < 5) throw std::invalid_argument("NBLKS < 5");
  if (h.crc_present != 0) throw std::invalid_argument("CPF/HCRC generation disabled");

  w.write(kSyncWord, 32);
  w.write(flag(h.normal_frame), 1);
  w.write(h.deficit_samples, 5);
  w.write(0, 1);  // CPF
  w.write(h.nblks, 7);
  w.write(h.frame_bytes - 1u, 14);
  w.write(h.amode, 6);
  w.write(sfreq_code(h.sample_rate), 4);
  w.write(rate_code(h.bitrate), 5);
  const unsigned pcmr = pcmr_code(h.pcm_bits, h.pcm_es != 0);
  w.write(0, 1);  // fixed MIX bit
  w.write(flag(h.dynf), 1);
  w.write(flag(h.timef), 1);
  w.write(flag(h.auxf), 1);
  w.write(flag(h.hdcd), 1);
  w.write(h.ext_audio_id, 3);
  w.write(flag(h.ext_audio), 1);
  w.write(flag(h.aspf), 1);
  w.write(h.lff, 2);
  w.write(flag(h.hflag), 1);
  w.write(flag(h.filts), 1);
  w.write(h.vernum, 4);
  w.write(h.chist, 2);
  w.write(pcmr, 3);
  w.write(flag(h.sumf), 1);
  w.write(flag(h.sums), 1);
  w.write(h.dialnorm, 4);
}

void set_encoder_header(CoreFrameHeader& header, std::uint8_t amode, std::uint32_t sample_rate,
                               std::uint32_t bitrate, std::uint32_t frame_bytes) {
  header.amode = amode;
  header.sample_rate = sample_rate;
  header.bitrate = bitrate;
  header.frame_bytes = static_cast<std::uint16_t>(frame_bytes);
  header.filts = 1;
  header.vernum = 7;
  header.chist = 0;
}

}  // namespace tavrin
