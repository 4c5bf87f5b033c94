// What a client's SETUP asks for, and whether we serve it. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kavo::impl {

struct RequestedTransport {
  bool interleaved = false;  // on the RTSP connection, otherwise over unicast UDP
  bool chosen = true;        // false: the server is to choose the channels
  std::uint16_t rtp = 0;     // channel or client port
  std::uint16_t rtcp = 1;

  // As live555 reads it.
  std::string text() const;
};

// The first transport of a Transport header that we serve; nothing if there is none.
std::optional<RequestedTransport> acceptableTransport(std::string_view header);

}  // namespace kavo::impl
