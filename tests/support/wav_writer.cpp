#include "support/wav_writer.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <stdexcept>

#include "support/decoders.h"

namespace tavrin {
namespace {

void put_le(std::vector<std::uint8_t>& out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

void put_tag(std::vector<std::uint8_t>& out, const char* tag) { out.insert(out.end(), tag, tag + 4); }

std::uint32_t to_integer(double value, int bits) {
  const double top = std::ldexp(1.0, bits - 1);
  double scaled = std::isnan(value) ? 0.0 : std::round(value * top);
  scaled = std::clamp(scaled, -top, top - 1.0);
  // Two's complement of the container width, built without shifting negatives.
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(scaled));
}

unsigned width_of(SampleFormat fmt) {
  switch (fmt) {
    case SampleFormat::s16le: return 2;
    case SampleFormat::s24le: return 3;
    case SampleFormat::s32le:
    case SampleFormat::f32le: return 4;
  }
  throw std::invalid_argument("unknown sample format");
}

}  // namespace

std::vector<std::uint8_t> encode_pcm_interleaved(const std::vector<std::vector<double>>& channels,
                                                 SampleFormat fmt) {
  const unsigned width = width_of(fmt);
  const std::size_t frames = channels.empty() ? 0 : channels.front().size();
  for (const auto& channel : channels) {
    if (channel.size() != frames) throw std::invalid_argument("channel length mismatch");
  }
  std::vector<std::uint8_t> out;
  out.reserve(frames * channels.size() * width);
  for (std::size_t f = 0; f < frames; ++f) {
    for (const auto& channel : channels) {
      const double value = channel[f];
      switch (fmt) {
        case SampleFormat::s16le: put_le(out, to_integer(value, 16), 2); break;
        case SampleFormat::s24le: put_le(out, to_integer(value, 24), 3); break;
        case SampleFormat::s32le: put_le(out, to_integer(value, 32), 4); break;
        case SampleFormat::f32le: put_le(out, std::bit_cast<std::uint32_t>(static_cast<float>(value)), 4); break;
      }
    }
  }
  return out;
}

std::vector<std::uint8_t> build_wav_bytes(const std::vector<std::vector<double>>& channels, std::uint32_t rate,
                                          SampleFormat fmt, std::optional<std::uint32_t> extensible_mask, bool rf64) {
  const std::vector<std::uint8_t> pcm = encode_pcm_interleaved(channels, fmt);
  const unsigned width = width_of(fmt);
  const auto channel_count = static_cast<std::uint16_t>(channels.size());
  const std::uint16_t format_tag = fmt == SampleFormat::f32le ? 3 : 1;
  const std::uint32_t fmt_size = extensible_mask ? 40 : 16;
  const std::uint64_t pad = pcm.size() % 2;
  const std::uint64_t riff_size = 4 + (rf64 ? 8 + 28 : 0) + 8 + fmt_size + 8 + pcm.size() + pad;

  std::vector<std::uint8_t> out;
  out.reserve(static_cast<std::size_t>(riff_size + 8));
  put_tag(out, rf64 ? "RF64" : "RIFF");
  put_le(out, rf64 ? 0xFFFFFFFFu : static_cast<std::uint32_t>(riff_size), 4);
  put_tag(out, "WAVE");
  if (rf64) {
    put_tag(out, "ds64");
    put_le(out, 28, 4);
    put_le(out, riff_size, 8);
    put_le(out, pcm.size(), 8);
    put_le(out, channels.empty() ? 0 : channels.front().size(), 8);
    put_le(out, 0, 4);  // no table entries
  }
  put_tag(out, "fmt ");
  put_le(out, fmt_size, 4);
  put_le(out, extensible_mask ? 0xFFFE : format_tag, 2);
  put_le(out, channel_count, 2);
  put_le(out, rate, 4);
  put_le(out, std::uint64_t{rate} * width * channel_count, 4);
  put_le(out, width * channel_count, 2);
  put_le(out, width * 8, 2);
  if (extensible_mask) {
    put_le(out, 22, 2);         // extension size
    put_le(out, width * 8, 2);  // valid bits
    put_le(out, *extensible_mask, 4);
    static constexpr std::uint8_t kGuidTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                                   0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    put_le(out, format_tag, 2);
    out.insert(out.end(), std::begin(kGuidTail), std::end(kGuidTail));
  }
  put_tag(out, "data");
  put_le(out, rf64 ? 0xFFFFFFFFu : static_cast<std::uint32_t>(pcm.size()), 4);
  out.insert(out.end(), pcm.begin(), pcm.end());
  if (pad) out.push_back(0);
  return out;
}

void write_wav_file(const std::string& path, const std::vector<std::vector<double>>& channels, std::uint32_t rate,
                    SampleFormat fmt, std::optional<std::uint32_t> extensible_mask, bool rf64) {
  test::write_bytes(path, build_wav_bytes(channels, rate, fmt, extensible_mask, rf64));
}

}  // namespace tavrin
