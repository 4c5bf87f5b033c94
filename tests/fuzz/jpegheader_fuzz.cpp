// Any bytes as a JPEG image: the header scan stays inside them.
#include <cstdint>
#include <cstdlib>

#include "rtp/jpegheader.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  auto const header = kavo::impl::readJpegHeader({data, size});
  if (header.length > size) {
    std::abort();
  }
  return 0;
}
