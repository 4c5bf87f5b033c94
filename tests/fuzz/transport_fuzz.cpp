// Any bytes as a SETUP request: what is passed on is one of the two forms that
// the server understands.
#include <cstdint>
#include <cstdlib>

#include "server/transport.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  auto const transport = kavo::acceptableTransport({reinterpret_cast<char const*>(data), size});
  if (transport && !transport->starts_with("RTP/AVP;unicast;client_port=") &&
      !transport->starts_with("RTP/AVP/TCP;unicast")) {
    std::abort();
  }
  return 0;
}
