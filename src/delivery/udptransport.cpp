#include "delivery/udptransport.h"

#include <sys/socket.h>

#include <algorithm>

#include "delivery/pathmtu.h"

namespace kavo::impl {

namespace {

constexpr std::size_t smallestPacket = 512;

sockaddr_storage withPort(sockaddr_storage address, std::uint16_t port) {
  portOf(address) = htons(port);
  return address;
}

}  // namespace

UdpTransport::UdpTransport(UdpFanout& fanout, sockaddr_storage const& address, std::uint16_t rtpPort,
                           std::uint16_t rtcpPort)
    : m_Fanout(fanout),
      m_Destination{.address = withPort(address, rtpPort)},
      m_RtcpAddress(withPort(address, rtcpPort)),
      m_Path(fanout.pathTo(address)) {}

UdpTransport::~UdpTransport() {
  eventLoopRole.assertHeld();
  m_Fanout.cancel(*this);
}

void UdpTransport::sendReport(std::span<std::uint8_t const> report) {
  int const socket = m_Fanout.ports(m_RtcpAddress.ss_family).rtcpSocket();
  // The first attempt may return the error of an earlier report to another viewer.
  for (int tries = 0; tries < 2; ++tries) {
    if (sendto(socket, report.data(), report.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr const*>(&m_RtcpAddress),
               sizeOf(m_RtcpAddress)) >= 0) {
      return;
    }
  }
}

void UdpTransport::measureMaxPacket(std::size_t limit) {
  m_MaxPacket = std::min<std::size_t>(limit, maxUdpPayload(address()).value_or(limit));
}

void UdpTransport::reduceMaxPacket(std::size_t limit) {
  std::size_t const path = maxUdpPayload(address()).value_or(limit);
  m_MaxPacket = std::max(path < m_MaxPacket ? path : m_MaxPacket * 3 / 4, smallestPacket);
}

}  // namespace kavo::impl
