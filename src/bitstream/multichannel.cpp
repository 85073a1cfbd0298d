#include "bitstream/multichannel.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "bitstream/bit_writer.h"
#include "bitstream/lfe_scale_table.h"

namespace tavrin {

namespace {

constexpr unsigned kSubframes = 4;
// The peak of a subframe's LFE samples lands on 4.445 / 0.035 = 127.
constexpr double kLfePeakRatio = 4.445;
constexpr double kLfeStepRatio = 0.035;
constexpr double kScaleUnit = 1.0 / 8388608.0;  // 2^-23

// Both sizes come from the writers themselves.
std::uint64_t header_bits() {
  static const std::uint64_t bits = [] {
    BitWriter w(16);
    CoreFrameHeader header;
    header.frame_bytes = 96;
    write_header(w, header);
    return std::uint64_t{w.bit_count()};
  }();
  return bits;
}

std::uint64_t frame_lfe_bits() {
  static const std::uint64_t bits = [] {
    Subframe sub;
    sub.lfe.assign(kLfeSamplesPerSubframe, 0);
    return kSubframes * lfe_bit_count(sub, kMultichannelLff);
  }();
  return bits;
}

void fail(const char* message) { throw std::invalid_argument(message); }

}  // namespace

MultichannelFrameSetup setup_multichannel_frame(const ChannelLayout& layout, std::size_t primary_blocks,
                                                bool lfe_given, std::uint32_t sample_rate, std::uint32_t bitrate,
                                                std::uint32_t frame_bytes) {
  if (!validate_layout(layout)) fail("invalid multichannel layout");
  if (layout.name == "2.0") fail("generic multichannel writer excludes stereo");
  if (sample_rate != 44100 && sample_rate != 48000) fail("multichannel writer supports 44.1/48 kHz");
  if (primary_blocks != full_band_count(layout)) fail("primary channel count does not match layout");
  if (layout.has_lfe && !lfe_given) fail("LFE layout requires LFE PCM");
  if (!layout.has_lfe && lfe_given) fail("non-LFE layout must not supply LFE PCM");
  if (layout.amode != 5 && layout.amode != 8 && layout.amode != 9) fail("unsupported public multichannel AMODE");

  MultichannelFrameSetup setup;
  setup.lfe_bits = layout.has_lfe ? frame_lfe_bits() : 0;
  const std::uint64_t frame_bits = std::uint64_t{frame_bytes} * 8;
  if (frame_bits <= header_bits() + setup.lfe_bits) throw std::runtime_error("multichannel target frame too small");
  setup.payload_budget = frame_bits - setup.lfe_bits - header_bits();

  CoreFrameHeader& h = setup.header;
  set_encoder_header(h, layout.amode, sample_rate, bitrate, frame_bytes);
  h.normal_frame = 1;
  h.deficit_samples = 31;
  h.crc_present = 0;
  h.nblks = 31;
  h.hflag = 0;
  h.pcm_bits = 24;
  h.lff = layout.has_lfe ? kMultichannelLff : 0;
  return setup;
}

void code_lfe_subframe(Subframe& subframe, const double* samples) {
  double peak = 0.0;
  for (std::size_t i = 0; i < kLfeSamplesPerSubframe; ++i) peak = std::max(peak, std::abs(samples[i]));
  std::size_t index = 0;
  if (peak > 0.0) {
    const double wanted = peak / kLfePeakRatio;
    index = kLfeScaleCount - 1;
    for (std::size_t i = 0; i < kLfeScaleCount; ++i) {
      if (wanted <= kLfeScale[i] * kScaleUnit) {
        index = i;
        break;
      }
    }
  }
  const double step = kLfeScale[index] * kScaleUnit * kLfeStepRatio;
  subframe.lfe.assign(kLfeSamplesPerSubframe, 0);
  for (std::size_t i = 0; i < kLfeSamplesPerSubframe; ++i) {
    if (!(step > 0.0)) continue;
    // Rounds half to even in the default rounding mode.
    const double q = std::clamp(std::nearbyint(samples[i] / step), -128.0, 127.0);
    subframe.lfe[i] = static_cast<std::int8_t>(q);
  }
  if (index >= kLfeScaleCount) fail("invalid DTS 7-bit LFE scale index");
  subframe.lfe_scale = static_cast<std::uint8_t>(index);
}

}  // namespace tavrin
