#pragma once
// Writes test input files: plain, WAVEFORMATEXTENSIBLE or RF64 WAVE, from one
// vector of full-scale doubles per channel, channels in file (interleaved)
// order.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "input/sample_format.h"

namespace tavrin {

// Interleaved little-endian samples. Integer formats scale by 2^(bits-1),
// round to nearest and clamp to the format's range (NaN becomes 0); f32le
// stores the value as a float unchanged. All channels must be equally long.
std::vector<std::uint8_t> encode_pcm_interleaved(const std::vector<std::vector<double>>& channels,
                                                 SampleFormat fmt);

// A whole file in memory. With `extensible_mask` the fmt chunk is the 40-byte
// WAVEFORMATEXTENSIBLE form carrying that mask; with `rf64` the container is
// RF64 with a ds64 chunk and 0xFFFFFFFF in the RIFF and data size fields.
std::vector<std::uint8_t> build_wav_bytes(const std::vector<std::vector<double>>& channels, std::uint32_t rate,
                                          SampleFormat fmt, std::optional<std::uint32_t> extensible_mask = {},
                                          bool rf64 = false);

// build_wav_bytes written to `path`; throws std::runtime_error when the file
// cannot be written.
void write_wav_file(const std::string& path, const std::vector<std::vector<double>>& channels, std::uint32_t rate,
                    SampleFormat fmt, std::optional<std::uint32_t> extensible_mask = {}, bool rf64 = false);

}  // namespace tavrin
