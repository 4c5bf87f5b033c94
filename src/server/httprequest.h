// A request to the status server: as much of HTTP/1 as asking for a page takes. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace kavo::impl {

struct HttpRequest {
  std::string_view status = "200 OK";  // or why it is refused
  bool wantsBody = true;
  std::string path;  // without a query

  // From the header, up to and including its empty line. Other web sites' pages, to which a browser
  // may give another name for our address, are refused by the Host that they say.
  static HttpRequest parse(std::string_view header);
};

}  // namespace kavo::impl
