#include "server/httprequest.h"

#include <arpa/inet.h>

#include "server/text.h"

namespace kavo::impl {

namespace {

// Whether the host is an IP address or localhost, with or without a port.
bool isOurName(std::string_view host) {
  bool const bracketed = host.starts_with('[');
  std::string const name(bracketed ? host.substr(1, host.find(']') - 1) : host.substr(0, host.find(':')));
  in6_addr address;
  return equalsIgnoringCase(name, "localhost") ||
         inet_pton(bracketed ? AF_INET6 : AF_INET, name.c_str(), &address) == 1;
}

}  // namespace

HttpRequest HttpRequest::parse(std::string_view header) {
  HttpRequest request;
  auto const lines = split(header, '\n');
  auto const words = split(lines[0], ' ');
  bool isLocal = false;
  for (auto const line : lines) {
    auto const colon = line.find(':');
    isLocal = isLocal || (equalsIgnoringCase(line.substr(0, colon), "Host") && colon != std::string_view::npos &&
                          isOurName(trimmed(line.substr(colon + 1))));
  }
  if (words.size() != 3 || !words[2].starts_with("HTTP/1.") || !words[1].starts_with('/') || !isLocal) {
    request.status = "400 Bad Request";
  } else if (words[0] != "GET" && words[0] != "HEAD") {
    request.status = "405 Method Not Allowed";
  }
  request.wantsBody = words[0] != "HEAD";
  request.path = words.size() > 1 ? words[1].substr(0, words[1].find('?')) : "";
  return request;
}

}  // namespace kavo::impl
