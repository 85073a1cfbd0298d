#include "input/wave.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace tavrin {
namespace {

constexpr char kUnexpectedEnd[] = "unexpected end of PCM/WAVE file";

// The stream together with where we stand in it and, when the stream can
// tell, where it ends. Knowing the end turns a chunk that claims more bytes
// than the file holds into a clean failure: seeking past the end of a
// std::istream may otherwise "succeed" and leave the walk reading nothing.
struct Cursor {
  std::istream& in;
  std::uint64_t pos = 0;
  std::optional<std::uint64_t> end;
};

Cursor open_cursor(std::istream& in) {
  Cursor cursor{in, 0, std::nullopt};
  const std::istream::pos_type here = in.tellg();
  if (here == std::istream::pos_type(-1)) return cursor;  // not seekable: skip by reading
  cursor.pos = static_cast<std::uint64_t>(std::streamoff(here));
  in.seekg(0, std::ios::end);
  const std::istream::pos_type last = in.tellg();
  if (in && last != std::istream::pos_type(-1)) cursor.end = static_cast<std::uint64_t>(std::streamoff(last));
  in.clear();
  in.seekg(here);
  return cursor;
}

bool read_exact(Cursor& cursor, std::uint8_t* buffer, std::size_t count) {
  cursor.in.read(reinterpret_cast<char*>(buffer), static_cast<std::streamsize>(count));
  const auto got = static_cast<std::uint64_t>(cursor.in.gcount());
  cursor.pos += got;
  return got == count;
}

// Moves forward `count` bytes; false when the stream holds fewer.
bool skip(Cursor& cursor, std::uint64_t count) {
  if (count == 0) return true;
  if (cursor.end) {
    if (cursor.pos > *cursor.end || count > *cursor.end - cursor.pos) return false;
    // A seek throws the stream's buffer away and the next read refills all
    // of it: a file of many tiny chunks would cost a refill per chunk.
    // Bytes already buffered are stepped over in place.
    const std::streamsize buffered = cursor.in.rdbuf()->in_avail();
    if (buffered > 0 && count <= static_cast<std::uint64_t>(buffered)) {
      cursor.in.ignore(static_cast<std::streamsize>(count));
      cursor.pos += count;
      return static_cast<std::uint64_t>(cursor.in.gcount()) == count;
    }
    cursor.in.seekg(static_cast<std::streamoff>(cursor.pos + count));
    if (!cursor.in) return false;
    cursor.pos += count;
    return true;
  }
  constexpr std::uint64_t kStep = std::uint64_t{1} << 30;  // fits a 32-bit std::streamsize
  while (count > 0) {
    const std::uint64_t step = std::min(count, kStep);
    cursor.in.ignore(static_cast<std::streamsize>(step));
    const auto got = static_cast<std::uint64_t>(cursor.in.gcount());
    cursor.pos += got;
    if (got != step) return false;
    count -= step;
  }
  return true;
}

// Reads the first `keep` bytes of a chunk body of `size` bytes into `buffer`
// and steps over the rest, so a header-sized chunk claiming gigabytes costs no
// memory. Any shortfall is a truncated file.
void read_body(Cursor& cursor, std::uint32_t size, std::uint8_t* buffer, std::size_t keep) {
  const std::size_t want = std::min<std::size_t>(size, keep);
  if (!read_exact(cursor, buffer, want) || !skip(cursor, size - want)) throw std::runtime_error(kUnexpectedEnd);
}

std::uint16_t le16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }
std::uint32_t le32(const std::uint8_t* p) { return le16(p) | (std::uint32_t{le16(p + 2)} << 16); }
std::uint64_t le64(const std::uint8_t* p) { return le32(p) | (std::uint64_t{le32(p + 4)} << 32); }

bool tag_is(const std::uint8_t* p, const char (&tag)[5]) { return std::memcmp(p, tag, 4) == 0; }

struct FmtFields {
  std::uint16_t tag = 0;
  std::uint16_t channels = 0;
  std::uint32_t sample_rate = 0;
  std::uint16_t block_align = 0;
  std::uint16_t bits = 0;
  std::uint16_t valid_bits = 0;
  std::uint32_t mask = 0;
  bool extensible = false;
};

constexpr std::uint16_t kTagPcm = 1;
constexpr std::uint16_t kTagFloat = 3;
constexpr std::uint16_t kTagExtensible = 0xFFFE;
constexpr std::uint32_t kRf64SizeInDs64 = 0xFFFFFFFF;

// What a writer that cannot seek back (ffmpeg, sox, ... into a pipe) leaves
// in place of a data size it did not know yet.
bool is_placeholder_size(std::uint64_t size) {
  return size == 0 || size == 0xFFFFFFFFu || size == ~std::uint64_t{0};
}

FmtFields parse_fmt(Cursor& cursor, std::uint32_t size) {
  if (size < 16) throw std::runtime_error("invalid WAVE fmt");
  std::array<std::uint8_t, 40> body{};
  read_body(cursor, size, body.data(), body.size());
  FmtFields fmt;
  fmt.tag = le16(&body[0]);
  fmt.channels = le16(&body[2]);
  fmt.sample_rate = le32(&body[4]);
  fmt.block_align = le16(&body[12]);
  fmt.bits = le16(&body[14]);
  fmt.valid_bits = fmt.bits;
  if (fmt.tag == kTagExtensible) {
    if (size < 40) throw std::runtime_error("short WAVEFORMATEXTENSIBLE fmt");
    fmt.valid_bits = le16(&body[18]);
    fmt.mask = le32(&body[20]);
    // Only the leading two bytes of the SubFormat GUID carry the format code;
    // the fixed tail is not checked so that oddly written files still open.
    const std::uint16_t subformat = le16(&body[24]);
    if (subformat != kTagPcm && subformat != kTagFloat) {
      throw std::runtime_error("unsupported WAVEFORMATEXTENSIBLE subformat");
    }
    fmt.tag = subformat;
    fmt.extensible = true;
  }
  return fmt;
}

std::optional<SampleFormat> sample_format_of(const FmtFields& fmt) {
  if (fmt.tag == kTagPcm) {
    if (fmt.bits == 16) return SampleFormat::s16le;
    if (fmt.bits == 24) return SampleFormat::s24le;
    if (fmt.bits == 32) return SampleFormat::s32le;
  }
  if (fmt.tag == kTagFloat && fmt.bits == 32) return SampleFormat::f32le;
  return std::nullopt;
}

}  // namespace

PcmSourceInfo open_wave(std::istream& stream) {
  Cursor cursor = open_cursor(stream);

  std::array<std::uint8_t, 12> riff{};
  if (!read_exact(cursor, riff.data(), riff.size())) throw std::runtime_error(kUnexpectedEnd);
  const bool rf64 = tag_is(&riff[0], "RF64");
  if ((!rf64 && !tag_is(&riff[0], "RIFF")) || !tag_is(&riff[8], "WAVE")) {
    throw std::runtime_error("input is not RIFF/RF64 WAVE");
  }
  if (!stream || stream.peek() == std::istream::traits_type::eof()) throw std::runtime_error("WAVE missing fmt/data");

  std::optional<FmtFields> fmt;
  std::optional<std::uint64_t> ds64_data_size;
  std::optional<std::uint64_t> data_offset;
  std::uint64_t data_bytes = 0;
  bool stream_ok = true;

  while (!data_offset && stream_ok) {
    std::array<std::uint8_t, 8> header{};
    if (!read_exact(cursor, header.data(), header.size())) throw std::runtime_error(kUnexpectedEnd);
    const std::uint32_t size = le32(&header[4]);

    if (rf64 && tag_is(&header[0], "ds64")) {
      if (size < 28) throw std::runtime_error("invalid RF64 ds64");
      std::array<std::uint8_t, 16> body{};
      read_body(cursor, size, body.data(), body.size());
      ds64_data_size = le64(&body[8]);
    } else if (tag_is(&header[0], "fmt ")) {
      fmt = parse_fmt(cursor, size);
    } else if (tag_is(&header[0], "data")) {
      data_offset = cursor.pos;
      if (rf64 && size == kRf64SizeInDs64) {
        if (!ds64_data_size) throw std::runtime_error("RF64 data requires ds64");
        data_bytes = *ds64_data_size;
      } else {
        data_bytes = size;
      }
      break;
    } else if (!skip(cursor, size)) {
      throw std::runtime_error("invalid WAVE chunk");
    }
    // A missing pad byte can only be at the very end of the file, so there is
    // no data chunk left to find.
    if (size % 2 != 0) stream_ok = skip(cursor, 1);
  }

  if (!fmt || !data_offset) throw std::runtime_error("WAVE missing fmt/data");
  if (fmt->sample_rate != 44100 && fmt->sample_rate != 48000) {
    throw std::runtime_error("supported sample rates are 44.1/48 kHz");
  }
  const std::optional<SampleFormat> format = sample_format_of(*fmt);
  if (!format) throw std::runtime_error("unsupported WAVE PCM format");
  if (fmt->valid_bits != fmt->bits) {
    throw std::runtime_error("packed valid-bits-in-container PCM is not yet supported");
  }

  PcmSourceInfo info;
  if (fmt->extensible) {
    std::optional<ChannelLayout> layout = layout_from_wave_mask(fmt->channels, fmt->mask);
    if (!layout) throw std::runtime_error("unsupported WAVEFORMATEXTENSIBLE speaker mask");
    info.layout = std::move(*layout);
    info.source_order = source_order_from_mask(fmt->mask);
  } else {
    if (fmt->channels != 2) throw std::runtime_error("multichannel WAVE requires WAVEFORMATEXTENSIBLE speaker mask");
    info.layout = stereo_layout();
    info.source_order = {SpeakerId::L, SpeakerId::R};
  }
  if (fmt->block_align != std::uint64_t{bytes_per_sample(*format)} * fmt->channels) {
    throw std::runtime_error("unsupported WAVE block alignment");
  }

  info.format = *format;
  info.channels = fmt->channels;
  info.sample_rate = fmt->sample_rate;
  info.extensible = fmt->extensible;
  info.data_offset = *data_offset;
  info.data_bytes = data_bytes;
  info.rf64 = rf64;
  // On a pipe the only way to learn the length is to read to the end; a
  // stated length is still honoured, and a file keeps every check.
  info.until_end = !cursor.end && is_placeholder_size(data_bytes);
  if (info.until_end) info.data_bytes = 0;
  // The walk stopped right after the data chunk header: the stream already
  // stands at the first audio byte.
  return info;
}

}  // namespace tavrin
