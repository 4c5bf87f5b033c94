// Delivers to a viewer over UDP. Event-loop thread.
#pragma once

#include <memory>

#include "base/address.h"
#include "delivery/transport.h"
#include "delivery/udpfanout.h"
#include "delivery/udpsender.h"

namespace kavo::impl {

class UdpTransport : public Transport {
 public:
  // Ports are in host byte order. The fan-out must have open sockets of the address's family.
  UdpTransport(UdpFanout& fanout, sockaddr_storage const& address, std::uint16_t rtpPort, std::uint16_t rtcpPort)
      KAVO_REQUIRES(eventLoopRole);
  ~UdpTransport() override;

  Outcome send(FramePtr const& frame, Clock::time_point now) override KAVO_REQUIRES(eventLoopRole) {
    return m_Fanout.add(*this, frame, now);
  }
  void sendReport(std::span<std::uint8_t const> report) override KAVO_REQUIRES(eventLoopRole);
  void cancel() override KAVO_REQUIRES(eventLoopRole) { m_Fanout.cancel(*this); }
  bool isBusy() const override { return m_Path->current.frame != nullptr; }
  UdpTransport* udp() override { return this; }

  UdpPath& path() { return *m_Path; }
  UdpDestination& destination() { return m_Destination; }
  sockaddr_storage const& address() const { return m_Destination.address; }
  // The largest RTP packet that the path carries, in bytes; at most the limit.
  std::size_t maxPacket() const { return m_MaxPacket; }
  void measureMaxPacket(std::size_t limit) KAVO_REQUIRES(eventLoopRole);
  // Call after a packet exceeded the path MTU.
  void reduceMaxPacket(std::size_t limit) KAVO_REQUIRES(eventLoopRole);

  // Whether both send to the same address and port.
  bool hasPortsOf(UdpTransport const& other) const {
    return isSameHost(address(), other.address()) && portOf(address()) == portOf(other.address());
  }
  // Whether its RTCP comes from this address, and from this port: the announced or a learnt one.
  bool reportsFrom(sockaddr_storage const& from) const { return isSameHost(m_RtcpAddress, from); }
  bool reportsFromPort(in_port_t port) const { return port == portOf(m_RtcpAddress) || port == m_ReportPort; }
  void learnReportPort(in_port_t port) { m_ReportPort = port; }
  bool reportsTo(sockaddr_storage const& to) const { return reportsFrom(to) && portOf(m_RtcpAddress) == portOf(to); }

 private:
  UdpFanout& m_Fanout;
  UdpDestination m_Destination;
  sockaddr_storage m_RtcpAddress;
  std::shared_ptr<UdpPath> m_Path;
  std::size_t m_MaxPacket = 0;
  in_port_t m_ReportPort = 0;  // network byte order
};

}  // namespace kavo::impl
