#pragma once
// The four interleaved PCM sample encodings the encoder reads.
#include <cstdint>
#include <optional>
#include <string_view>

namespace tavrin {

enum class SampleFormat : std::uint8_t { s16le = 0, s24le = 1, s32le = 2, f32le = 3 };

// Exact, case-sensitive: "s16le", "s24le", "s32le", "f32le".
std::optional<SampleFormat> parse_sample_format(std::string_view name);
// Empty for an unknown code.
std::string_view sample_format_name(SampleFormat format);
// 0 for an unknown code.
unsigned bytes_per_sample(SampleFormat format);

}  // namespace tavrin
