// What a client's SETUP asks for, and whether we serve it. Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kavo {

// The first transport of the request's Transport header that we serve (RTP over
// unicast UDP with two client ports, or RTP interleaved on the connection), in
// the words that live555 understands; nothing if there is none.
std::optional<std::string> acceptableTransport(std::string_view request);

}  // namespace kavo
