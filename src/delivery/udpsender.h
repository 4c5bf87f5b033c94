// Sends runs of packets to many UDP destinations with as few system calls as the
// kernel allows. Event-loop thread.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <functional>
#include <span>
#include <vector>

#include "delivery/packetrun.h"

struct mmsghdr;

namespace kavo {

class UdpSender {
 public:
  // Packets of one length go as one segmented send, if the kernel can.
  explicit UdpSender(bool segmentation = true) : m_Segmentation(segmentation) {}

  // Has the function called when a destination's path took only smaller packets.
  void onPathTooNarrow(std::function<void(sockaddr_storage const&)> function) { m_OnTooNarrow = std::move(function); }

  // A destination that fails does not disturb the others. What is refused as a
  // whole is sent packet by packet; what is refused then is counted as lost.
  void send(int socket, PacketRun const& run, std::span<sockaddr_storage const> destinations);

  // Packets that the kernel did not take.
  std::size_t lost() const { return m_Lost; }

 private:
  // Packets that can leave in one send: of one length, but for the last.
  struct Group {
    std::size_t offset;
    std::size_t length;
    std::size_t segment;
  };

  std::vector<Group> groupsOf(PacketRun const& run) const;
  void sendAll(int socket, std::span<mmsghdr> messages);
  void sendOneByOne(int socket, mmsghdr const& message);

  bool m_Segmentation;
  std::size_t m_Lost = 0;
  std::function<void(sockaddr_storage const&)> m_OnTooNarrow;
};

// The size of a socket address of its family.
socklen_t sizeOf(sockaddr_storage const& address);

}  // namespace kavo
