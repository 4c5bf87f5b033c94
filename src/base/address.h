// Socket addresses of both families. Any thread.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
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

// The IP address, in 4 or 16 bytes.
inline std::span<std::uint8_t> bytesOf(sockaddr_storage& address) {
  if (address.ss_family == AF_INET6) {
    return reinterpret_cast<sockaddr_in6&>(address).sin6_addr.s6_addr;
  }
  auto& ipv4 = reinterpret_cast<sockaddr_in&>(address).sin_addr;
  return {reinterpret_cast<std::uint8_t*>(&ipv4), sizeof ipv4};
}
inline std::span<std::uint8_t const> bytesOf(sockaddr_storage const& address) {
  return bytesOf(const_cast<sockaddr_storage&>(address));
}

// Whether both have the same IP address; ports are ignored.
inline bool isSameHost(sockaddr_storage const& a, sockaddr_storage const& b) {
  return a.ss_family == b.ss_family && std::ranges::equal(bytesOf(a), bytesOf(b)) &&
         (a.ss_family != AF_INET6 || reinterpret_cast<sockaddr_in6 const&>(a).sin6_scope_id ==
                                         reinterpret_cast<sockaddr_in6 const&>(b).sin6_scope_id);
}

// What limits count as one client: an IPv4 address, or the /64 network of an IPv6 address.
using Network = std::array<std::uint8_t, 9>;
inline Network networkOf(sockaddr_storage const& address) {
  Network network{static_cast<std::uint8_t>(address.ss_family)};
  auto const bytes = bytesOf(address);
  std::ranges::copy(bytes.first(std::min<std::size_t>(8, bytes.size())), network.begin() + 1);
  return network;
}

inline bool isLoopback(sockaddr_storage const& address) {
  auto const bytes = bytesOf(address);
  return address.ss_family == AF_INET6 ? IN6_IS_ADDR_LOOPBACK(reinterpret_cast<in6_addr const*>(bytes.data()))
                                       : bytes[0] == IN_LOOPBACKNET;
}

// Parses an address of the family; an empty text is the wildcard address. The port is 0.
// nullopt if the text is not an address of that family.
std::optional<sockaddr_storage> localAddress(int family, std::string const& text);

// An address at which others can reach this machine, preferably IPv4; 127.0.0.1 if it has none.
std::string machineAddress();

// Such as 192.0.2.7:5000 or [2001:db8::7]:5000.
std::string textOf(sockaddr_storage const& address);

}  // namespace kavo::impl
