#pragma once
// RIFF/WAVE and RF64/WAVE headers: describes the audio and leaves the stream
// at its first byte.
#include <istream>

#include "input/pcm_source.h"

namespace tavrin {

PcmSourceInfo open_wave(std::istream& stream);

}  // namespace tavrin
