#pragma once
// An in-memory stream that cannot seek, as a pipe cannot: what the readers
// see of `producer | tavrin-dts - ...`.
#include <ios>
#include <sstream>

namespace tavrin::test {

struct ForwardOnly : std::stringbuf {
  using std::stringbuf::stringbuf;
  pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override { return pos_type(-1); }
  pos_type seekpos(pos_type, std::ios::openmode) override { return pos_type(-1); }
};

}  // namespace tavrin::test
