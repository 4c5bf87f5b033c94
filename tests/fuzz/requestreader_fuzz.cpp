// Any bytes from a client, in pieces: the requests that come out are rebuilt
// within live555's buffer, with each header once and without a body.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "server/requestreader.h"

namespace {

std::size_t count(std::string const& text, std::string_view word) {
  std::size_t found = 0;
  for (auto at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
    ++found;
  }
  return found;
}

void check(kavo::impl::Request const& request) {
  auto const text = request.text();
  bool const oneRequest =
      count(text, "\r\n\r\n") == 1 && text.ends_with("\r\n\r\n") && count(text, " RTSP/1.0\r\n") == 1;
  auto const behindLine = text.substr(text.find("\r\n"));
  if (!oneRequest || text.size() > 1000 || count(behindLine, "CSeq:") != 1 || count(behindLine, "Session:") > 1 ||
      count(behindLine, "Content-Length:") != 0 || count(text, "RTSP/") != 1 || text.find('\0') != std::string::npos ||
      request.cseq.find_first_not_of("0123456789") != std::string::npos) {
    std::abort();
  }
}

// What comes out of the bytes when they arrive in pieces of a size.
std::vector<std::string> itemsOf(std::string_view all, std::size_t piece) {
  using kavo::impl::RequestReader;
  RequestReader reader;
  std::vector<std::string> items;
  for (std::size_t at = 0; at < all.size(); at += piece) {
    reader.add(all.substr(at, piece));
    for (auto item = reader.next(); item != RequestReader::Item::Incomplete; item = reader.next()) {
      if (item == RequestReader::Item::Malformed) {
        items.emplace_back("malformed");
        return items;
      }
      if (item == RequestReader::Item::Request) {
        check(reader.request());
        items.push_back(reader.request().text());
      } else {
        items.emplace_back(reader.packet().begin(), reader.packet().end());
      }
    }
  }
  return items;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const all(reinterpret_cast<char const*>(data), size);
  std::size_t const piece = size > 0 ? data[0] % 64 + 1 : 1;
  if (itemsOf(all, piece) != itemsOf(all, size + 1)) {
    std::abort();  // it must not matter how they arrive
  }
  return 0;
}
