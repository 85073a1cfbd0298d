#pragma once
// What the fuzz targets share: the tests' stream that cannot seek (a pipe),
// and a byte reader that hands out the fuzzer's choices and then the rest.
#include <cstddef>
#include <cstdint>
#include <istream>
#include <sstream>
#include <string>

#include "support/forward_only.h"

namespace tavrin::fuzz {

using test::ForwardOnly;

struct Bytes {
  const std::uint8_t* data;
  std::size_t size;

  // The next byte, or 0 once the input is used up.
  std::uint8_t take() {
    if (size == 0) return 0;
    --size;
    return *data++;
  }
  std::string rest() const { return std::string(reinterpret_cast<const char*>(data), size); }
};

}  // namespace tavrin::fuzz
