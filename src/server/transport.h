// The transport that a client's SETUP requests. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kavo::impl {

struct RequestedTransport {
  bool interleaved = false;  // on the RTSP connection; otherwise over unicast UDP
  bool chosen = true;        // false: the server chooses the channels
  std::uint16_t rtp = 0;     // channel or client port
  std::uint16_t rtcp = 1;

  // In the form that live555 parses.
  std::string text() const;
};

// The first transport in a Transport header that we serve; nullopt if there is none.
std::optional<RequestedTransport> acceptableTransport(std::string_view header);

}  // namespace kavo::impl
