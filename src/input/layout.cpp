#include "input/layout.h"

#include <bit>
#include <algorithm>
#include <initializer_list>
#include <stdexcept>

namespace tavrin {
namespace {

ChannelLayout make_layout(const char* name, std::initializer_list<SpeakerId> coding_order, std::uint8_t amode) {
  ChannelLayout layout;
  std::size_t slot = 0;
  for (SpeakerId speaker : coding_order) {
    layout.speakers[slot++] = speaker;
    if (speaker == SpeakerId::LFE) layout.has_lfe = 1;
  }
  layout.channel_count = static_cast<std::uint8_t>(coding_order.size());
  layout.amode = amode;
  layout.name = name;
  return layout;
}

using S = SpeakerId;

struct LayoutEntry {
  ChannelLayout layout;
  std::vector<SpeakerId> source_order;
  std::uint32_t side_mask;  // surrounds on 0x200/0x400 (stereo: its only mask)
  std::uint32_t back_mask;  // surrounds on 0x10/0x20; 0 when there is no second form
};

// The five layouts the encoders take, immutable after first use.
const std::vector<LayoutEntry>& layout_table() {
  static const std::vector<LayoutEntry> table = {
      {make_layout("2.0", {S::L, S::R}, 2), {S::L, S::R}, 0x3, 0},
      {make_layout("3.0", {S::C, S::L, S::R}, 5), {S::L, S::R, S::C}, 0x7, 0},
      {make_layout("4.0", {S::L, S::R, S::SL, S::SR}, 8), {S::L, S::R, S::SL, S::SR}, 0x603, 0x33},
      {make_layout("5.0", {S::C, S::L, S::R, S::SL, S::SR}, 9), {S::L, S::R, S::C, S::SL, S::SR}, 0x607, 0x37},
      {make_layout("5.1", {S::C, S::L, S::R, S::SL, S::SR, S::LFE}, 9),
       {S::L, S::R, S::C, S::LFE, S::SL, S::SR},
       0x60F,
       0x3F},
  };
  return table;
}

const LayoutEntry* find_entry(std::string_view name) {
  for (const LayoutEntry& entry : layout_table()) {
    if (entry.layout.name == name) return &entry;
  }
  return nullptr;
}

// Little-endian loads assembled byte by byte: no alignment or host-order
// assumptions, and no shifts of negative values.
inline std::uint32_t load_u16(const std::uint8_t* p) { return std::uint32_t{p[0]} | (std::uint32_t{p[1]} << 8); }
inline std::uint32_t load_u24(const std::uint8_t* p) { return load_u16(p) | (std::uint32_t{p[2]} << 16); }
inline std::uint32_t load_u32(const std::uint8_t* p) { return load_u24(p) | (std::uint32_t{p[3]} << 24); }

inline double convert_s16(const std::uint8_t* p) {
  const std::uint32_t u = load_u16(p);
  const std::int32_t v = static_cast<std::int32_t>(u) - ((u & 0x8000u) ? 0x10000 : 0);
  return v * (1.0 / 32768.0);
}

inline double convert_s24(const std::uint8_t* p) {
  const std::uint32_t u = load_u24(p);
  const std::int32_t v = static_cast<std::int32_t>(u) - ((u & 0x800000u) ? 0x1000000 : 0);
  return v * (1.0 / 8388608.0);
}

inline double convert_s32(const std::uint8_t* p) {
  const std::uint32_t u = load_u32(p);
  const std::int64_t v = static_cast<std::int64_t>(u) - ((u & 0x80000000u) ? (std::int64_t{1} << 32) : 0);
  return static_cast<double>(v) * (1.0 / 2147483648.0);
}

inline double convert_f32(const std::uint8_t* p) {
  const double x = std::bit_cast<float>(load_u32(p));
  // Written so that a NaN fails the first comparison and becomes 1.0.
  const double upper = x < 1.0 ? x : 1.0;
  return upper > -1.0 ? upper : -1.0;
}

// One source channel at a time: a strided read into a contiguous write.
// Channels are visited in source order, so when two source channels name the
// same speaker the later one wins, as it would frame by frame.
template <typename Convert>
void scatter(const std::uint8_t* bytes, std::size_t frames, std::size_t bytes_per, const std::vector<std::size_t>& slots,
             std::vector<std::vector<double>>& out, Convert convert) {
  const std::size_t stride = slots.size() * bytes_per;
  for (std::size_t j = 0; j < slots.size(); ++j) {
    double* dst = out[slots[j]].data();
    const std::uint8_t* src = bytes + j * bytes_per;
    for (std::size_t f = 0; f < frames; ++f, src += stride) dst[f] = convert(src);
  }
}

}  // namespace

unsigned full_band_count(const ChannelLayout& layout) {
  return layout.channel_count - (layout.has_lfe ? 1u : 0u);
}

std::optional<ChannelLayout> parse_layout_name(std::string_view text) {
  if (text == "stereo") return stereo_layout();
  if (const LayoutEntry* entry = find_entry(text)) return entry->layout;
  return std::nullopt;
}

std::optional<ChannelLayout> layout_from_wave_mask(unsigned channels, std::uint32_t mask) {
  for (const LayoutEntry& entry : layout_table()) {
    if (channels != entry.layout.channel_count) continue;
    if (mask == entry.side_mask || (entry.back_mask != 0 && mask == entry.back_mask)) return entry.layout;
  }
  return std::nullopt;
}

const ChannelLayout& stereo_layout() { return layout_table().front().layout; }

bool validate_layout(const ChannelLayout& layout) {
  if (layout.channel_count < 1 || layout.channel_count > 6) return false;
  unsigned lfe_slots = 0;
  for (std::size_t i = 0; i < layout.channel_count; ++i) {
    if (layout.speakers[i] == SpeakerId::LFE) ++lfe_slots;
  }
  if (lfe_slots > 1) return false;
  if ((lfe_slots == 1) != (layout.has_lfe != 0)) return false;
  const unsigned full_band = full_band_count(layout);
  switch (layout.amode) {
    case 2: return full_band == 2;
    case 5: return full_band == 3;
    case 8: return full_band == 4;
    case 9: return full_band == 5;
    default: return true;  // only the AMODEs the encoders produce are checked
  }
}

std::vector<SpeakerId> default_source_order(std::string_view layout_name) {
  if (const LayoutEntry* entry = find_entry(layout_name)) return entry->source_order;
  return {};
}

std::vector<SpeakerId> source_order_from_mask(std::uint32_t mask) {
  // Ascending bit order, which is the order of the channels in a WAVE frame.
  static constexpr struct {
    std::uint32_t bit;
    SpeakerId speaker;
  } kBits[] = {{0x1, S::L},   {0x2, S::R},   {0x4, S::C},    {0x8, S::LFE},
               {0x10, S::SL}, {0x20, S::SR}, {0x200, S::SL}, {0x400, S::SR}};
  std::vector<SpeakerId> order;
  for (const auto& entry : kBits) {
    if (mask & entry.bit) order.push_back(entry.speaker);
  }
  return order;
}

std::vector<std::vector<double>> deinterleave_to_layout(const std::uint8_t* bytes, std::size_t frames,
                                                        SampleFormat format, const ChannelLayout& layout,
                                                        const std::vector<SpeakerId>& source_order) {
  std::vector<std::vector<double>> out;
  deinterleave_into(bytes, frames, format, layout, source_order, out);
  return out;
}

void deinterleave_into(const std::uint8_t* bytes, std::size_t frames, SampleFormat format,
                       const ChannelLayout& layout, const std::vector<SpeakerId>& source_order,
                       std::vector<std::vector<double>>& out) {
  if (bytes == nullptr && frames > 0) throw std::invalid_argument("null PCM data");
  const std::size_t bytes_per = bytes_per_sample(format);
  if (bytes_per == 0) throw std::invalid_argument("unknown PCM sample format");
  if (source_order.size() != layout.channel_count) throw std::runtime_error("PCM source order/layout mismatch");

  out.resize(layout.channel_count);
  for (auto& channel : out) channel.assign(frames, 0.0);
  if (frames == 0) return;

  // Resolve each source channel's coding slot once instead of per sample.
  const std::size_t searchable = std::min<std::size_t>(layout.channel_count, layout.speakers.size());
  std::vector<std::size_t> slots(source_order.size());
  for (std::size_t j = 0; j < source_order.size(); ++j) {
    std::size_t k = 0;
    while (k < searchable && layout.speakers[k] != source_order[j]) ++k;
    if (k == searchable) throw std::runtime_error("source speaker not present in selected layout");
    slots[j] = k;
  }

  switch (format) {
    case SampleFormat::s16le: scatter(bytes, frames, bytes_per, slots, out, convert_s16); break;
    case SampleFormat::s24le: scatter(bytes, frames, bytes_per, slots, out, convert_s24); break;
    case SampleFormat::s32le: scatter(bytes, frames, bytes_per, slots, out, convert_s32); break;
    case SampleFormat::f32le: scatter(bytes, frames, bytes_per, slots, out, convert_f32); break;
  }
}

}  // namespace tavrin
