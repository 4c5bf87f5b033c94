// A request to the status server: the subset of HTTP/1 needed to serve a page. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace kavo::impl {

struct HttpRequest {
  std::string_view status = "200 OK";  // or the error
  bool wantsBody = true;
  std::string path;  // without the query

  // Parses the header, up to and including its empty line. Requests whose Host is not an address
  // or localhost are refused: they come from another web site whose name resolves to our address.
  static HttpRequest parse(std::string_view header);
};

}  // namespace kavo::impl
