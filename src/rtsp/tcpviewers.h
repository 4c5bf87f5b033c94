// The viewers of a stream that watch over their RTSP connection. live555 sees
// each as one more UDP destination of a groupsock, with ports that no client
// has. Event-loop thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "delivery/interleavedwriter.h"

namespace kavo {

struct TcpViewer {
  std::shared_ptr<InterleavedWriter> output;
  std::uint8_t rtpChannel;
  std::uint8_t rtcpChannel;
};

// By client session id; shared by a demand session and its groupsocks.
using TcpViewers = std::map<unsigned, TcpViewer>;

// What stands for the two channels in a destination's port (host byte order).
inline constexpr std::uint16_t rtpOverTcpPort = 1;
inline constexpr std::uint16_t rtcpOverTcpPort = 2;

}  // namespace kavo
