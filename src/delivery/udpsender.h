// Sends a frame's packets to many UDP destinations with few system calls, using
// UDP GSO where available. Event-loop thread.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "rtp/framepackets.h"

namespace kavo::impl {

struct UdpDestination {
  sockaddr_storage address{};
  bool segmentation = true;  // off once its path has refused segmentation offload
  bool exceedsMtu = false;   // a packet exceeded the path MTU; nothing is sent until this is reset
  std::uint64_t lost = 0;    // packets the kernel refused
};

class UdpSender {
 public:
  // Sends packets [first, last) of the frame in order. A failing destination does not
  // affect the others.
  void send(int socket, FramePackets const& packets, std::size_t first, std::size_t last,
            std::span<UdpDestination* const> destinations);

 private:
  // Messages in one system call.
  static constexpr std::size_t batch = 256;

  // A control message with the segment length.
  struct Control {
    alignas(cmsghdr) char bytes[CMSG_SPACE(sizeof(std::uint16_t))];
  };
  // The packets in one message: all of the same length except the last, which may be shorter.
  struct Train {
    std::span<iovec const> pieces;
    Control control;
    bool segmented;
  };

  void formTrains(FramePackets const& packets, std::size_t first, std::size_t last);
  void add(UdpDestination& destination, std::span<iovec const> pieces, Train* train);
  int sendSome(std::size_t first);
  void flush();
  void retry(mmsghdr const& message, UdpDestination& destination, int error);

  int m_Socket = -1;
  bool m_HasSendmmsg = true;
  std::vector<Train> m_Trains;
  std::array<mmsghdr, batch> m_Messages{};
  std::array<UdpDestination*, batch> m_Targets{};
  std::size_t m_Count = 0;
};

}  // namespace kavo::impl
