#pragma once
// Channel layouts, speaker codes and the conversion of interleaved input into
// one vector per channel in DTS Core coding order.
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "input/sample_format.h"

namespace tavrin {

enum class SpeakerId : std::uint8_t { L = 0, R = 1, C = 2, SL = 3, SR = 4, LFE = 5 };

struct ChannelLayout {
  std::array<SpeakerId, 6> speakers{};  // coding order; unused slots hold L (0)
  std::uint8_t channel_count = 0;       // including the LFE
  std::uint8_t amode = 0;
  std::uint8_t has_lfe = 0;
  std::string name;  // "2.0", "3.0", "4.0", "5.0", "5.1"
};

// Channels other than the LFE.
unsigned full_band_count(const ChannelLayout& layout);

std::optional<ChannelLayout> parse_layout_name(std::string_view text);
std::optional<ChannelLayout> layout_from_wave_mask(unsigned channels, std::uint32_t mask);
const ChannelLayout& stereo_layout();
bool validate_layout(const ChannelLayout& layout);

// Empty for an unknown name.
std::vector<SpeakerId> default_source_order(std::string_view layout_name);
std::vector<SpeakerId> source_order_from_mask(std::uint32_t mask);

// One vector of `frames` doubles (full scale +-1.0) per layout channel, in
// coding order.
std::vector<std::vector<double>> deinterleave_to_layout(const std::uint8_t* bytes, std::size_t frames,
                                                        SampleFormat format, const ChannelLayout& layout,
                                                        const std::vector<SpeakerId>& source_order);
// The same into `out`, reusing its vectors' storage: the streaming drivers
// convert every frame into the same buffers.
void deinterleave_into(const std::uint8_t* bytes, std::size_t frames, SampleFormat format,
                       const ChannelLayout& layout, const std::vector<SpeakerId>& source_order,
                       std::vector<std::vector<double>>& out);

}  // namespace tavrin
