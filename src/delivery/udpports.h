// The two UDP sockets of a stream for one address family: RTP on an even port,
// RTCP on the next (RFC 3550, 11). Event-loop thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "base/uniquefd.h"

namespace kavo::impl {

class UdpPorts {
 public:
  // Binds the first free pair of ports from 6970 up, on the local address if it is not
  // empty. nullopt if the address is of another family, all ports are in use, the process
  // is out of descriptors, or the machine lacks the family.
  static std::optional<UdpPorts> open(int family, std::string const& address);

  int rtpSocket() const { return m_Rtp.get(); }
  int rtcpSocket() const { return m_Rtcp.get(); }
  // The RTP port in host byte order; RTCP uses the next one.
  std::uint16_t port() const { return m_Port; }

 private:
  UdpPorts(UniqueFd rtp, UniqueFd rtcp, std::uint16_t port)
      : m_Rtp(std::move(rtp)), m_Rtcp(std::move(rtcp)), m_Port(port) {}

  UniqueFd m_Rtp;
  UniqueFd m_Rtcp;
  std::uint16_t m_Port;
};

}  // namespace kavo::impl
