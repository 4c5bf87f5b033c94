// What kavo-stat prints of a status page.
#pragma once

#include <kavo_status.h>

#include <cstdint>
#include <string>

// For people: a line a stream, and one for each of its viewers.
std::string tableOf(kv_status_page const& page);
// One JSON object.
std::string jsonOf(kv_status_page const& page);
// Prometheus' text format.
std::string metricsOf(kv_status_page const& page);

// The events after that one, a line each; number becomes the newest one's.
std::string eventsAfter(kv_status_page const& page, std::uint64_t& number);
