#include "delivery/address.h"

#include <arpa/inet.h>

namespace kavo::impl {

std::string textOf(sockaddr_storage const& address) {
  char host[INET6_ADDRSTRLEN] = {};
  bool const ipv6 = address.ss_family == AF_INET6;
  void const* const bytes = ipv6 ? static_cast<void const*>(&reinterpret_cast<sockaddr_in6 const&>(address).sin6_addr)
                                 : static_cast<void const*>(&reinterpret_cast<sockaddr_in const&>(address).sin_addr);
  inet_ntop(address.ss_family, bytes, host, sizeof host);
  std::string const port = ":" + std::to_string(ntohs(portOf(address)));
  return ipv6 ? "[" + std::string(host) + "]" + port : host + port;
}

}  // namespace kavo::impl
