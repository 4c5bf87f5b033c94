// The status of the process as text. Event-loop thread, since viewers are read.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kavo::impl {

// What the server knows.
struct ServerFigures {
  unsigned port = 0;
  double started = 0;  // seconds since 1970
  std::size_t connections = 0;
  std::size_t sessions = 0;
};

std::string statusAsJson(ServerFigures const& server);
// In Prometheus' text format.
std::string statusAsMetrics(ServerFigures const& server);
// A page for people, which asks for the JSON.
extern std::string_view const statusPage;

}  // namespace kavo::impl
