// Any bytes from a client, in pieces: what comes out fits live555's buffer.
#include <cstdint>
#include <cstdlib>

#include "server/requestreader.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using kavo::RequestReader;
  RequestReader reader;
  std::string_view const all(reinterpret_cast<char const*>(data), size);
  std::size_t const piece = size > 0 ? data[0] % 64 + 1 : 1;
  for (std::size_t at = 0; at < size; at += piece) {
    reader.add(all.substr(at, piece));
    for (auto item = reader.next(); item != RequestReader::Item::Incomplete; item = reader.next()) {
      if (item == RequestReader::Item::Malformed) {
        return 0;
      }
      if (item == RequestReader::Item::Request && (reader.text().size() >= 20000 || reader.method().empty())) {
        std::abort();
      }
    }
  }
  return 0;
}
