// Any bytes as a Transport header: what is accepted has ports, or channels that
// live555 takes for such.
#include <cstdint>
#include <cstdlib>

#include "server/transport.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  auto const transport = kavo::impl::acceptableTransport({reinterpret_cast<char const*>(data), size});
  if (transport &&
      (transport->interleaved ? transport->rtp > 254 || transport->rtcp > 254 || transport->rtp == transport->rtcp
                              : transport->rtp == 0 || transport->rtcp == 0)) {
    std::abort();
  }
  return 0;
}
