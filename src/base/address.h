// Socket addresses of both families. Any thread.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

namespace kavo::impl {

inline socklen_t sizeOf(sockaddr_storage const& address) {
  return address.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

inline in_port_t& portOf(sockaddr_storage& address) {  // network byte order
  return address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(address).sin6_port
                                       : reinterpret_cast<sockaddr_in&>(address).sin_port;
}
inline in_port_t portOf(sockaddr_storage const& address) { return portOf(const_cast<sockaddr_storage&>(address)); }

// Whether both have the same IP address; ports are ignored.
inline bool isSameHost(sockaddr_storage const& a, sockaddr_storage const& b) {
  if (a.ss_family != b.ss_family) {
    return false;
  }
  if (a.ss_family == AF_INET6) {
    auto const& left = reinterpret_cast<sockaddr_in6 const&>(a);
    auto const& right = reinterpret_cast<sockaddr_in6 const&>(b);
    return std::memcmp(&left.sin6_addr, &right.sin6_addr, sizeof left.sin6_addr) == 0 &&
           left.sin6_scope_id == right.sin6_scope_id;
  }
  return reinterpret_cast<sockaddr_in const&>(a).sin_addr.s_addr ==
         reinterpret_cast<sockaddr_in const&>(b).sin_addr.s_addr;
}

// What limits count as one client: an IPv4 address, or the /64 network of an IPv6 address.
using Network = std::array<std::uint8_t, 9>;
inline Network networkOf(sockaddr_storage const& address) {
  Network network{static_cast<std::uint8_t>(address.ss_family)};
  if (address.ss_family == AF_INET6) {
    std::memcpy(&network[1], &reinterpret_cast<sockaddr_in6 const&>(address).sin6_addr, 8);
  } else {
    std::memcpy(&network[1], &reinterpret_cast<sockaddr_in const&>(address).sin_addr, 4);
  }
  return network;
}

inline bool isLoopback(sockaddr_storage const& address) {
  return address.ss_family == AF_INET6
             ? IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<sockaddr_in6 const&>(address).sin6_addr)
             : ntohl(reinterpret_cast<sockaddr_in const&>(address).sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
}

// Parses an address of the family; an empty text is the wildcard address. The port is 0.
// nullopt if the text is not an address of that family.
std::optional<sockaddr_storage> localAddress(int family, std::string const& text);

// An address at which others can reach this machine, preferably IPv4; 127.0.0.1 if it has none.
std::string machineAddress();

// Such as 192.0.2.7:5000 or [2001:db8::7]:5000.
std::string textOf(sockaddr_storage const& address);

}  // namespace kavo::impl
