// The status of the process as text. Event-loop thread, because it reads the viewers.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kavo::impl {

// The server's own figures.
struct ServerFigures {
  unsigned port = 0;
  double started = 0;  // seconds since 1970
  std::size_t connections = 0;
  std::size_t sessions = 0;
};

std::string statusAsJson(ServerFigures const& server);
// In Prometheus' text format.
std::string statusAsMetrics(ServerFigures const& server);
// A web page that fetches and shows the JSON.
extern std::string_view const statusPage;

}  // namespace kavo::impl
