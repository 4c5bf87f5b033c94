// Any bytes as RTCP: reading stays inside them.
#include <algorithm>
#include <memory>

#include "rtp/rtcp.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  auto const exact = std::make_unique<std::uint8_t[]>(size);
  std::copy(data, data + size, exact.get());
  kavo::impl::readReceiverReport({exact.get(), size}, 0x01010101);
  return 0;
}
