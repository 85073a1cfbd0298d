#include "input/sample_format.h"

namespace tavrin {

std::optional<SampleFormat> parse_sample_format(std::string_view name) {
  if (name == "s16le") return SampleFormat::s16le;
  if (name == "s24le") return SampleFormat::s24le;
  if (name == "s32le") return SampleFormat::s32le;
  if (name == "f32le") return SampleFormat::f32le;
  return std::nullopt;
}

std::string_view sample_format_name(SampleFormat format) {
  switch (format) {
    case SampleFormat::s16le: return "s16le";
    case SampleFormat::s24le: return "s24le";
    case SampleFormat::s32le: return "s32le";
    case SampleFormat::f32le: return "f32le";
  }
  return {};
}

unsigned bytes_per_sample(SampleFormat format) {
  switch (format) {
    case SampleFormat::s16le: return 2;
    case SampleFormat::s24le: return 3;
    case SampleFormat::s32le: return 4;
    case SampleFormat::f32le: return 4;
  }
  return 0;
}

}  // namespace tavrin
