// Any bytes as a request to the status server: whatever is accepted says a host of ours.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "server/httprequest.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text(reinterpret_cast<char const*>(data), size);
  auto const request = kavo::impl::HttpRequest::parse(text);
  bool const isAccepted = request.status == "200 OK";
  if (isAccepted && (request.path.empty() || request.path[0] != '/' || request.path.find('?') != std::string::npos ||
                     text.find_first_of("Hh") == std::string::npos)) {
    std::abort();
  }
  return 0;
}
