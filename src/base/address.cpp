#include "base/address.h"

#include <arpa/inet.h>

namespace kavo::impl {

std::optional<sockaddr_storage> localAddress(int family, std::string const& text) {
  sockaddr_storage address{};
  address.ss_family = static_cast<sa_family_t>(family);
  void* const bytes = family == AF_INET6 ? static_cast<void*>(&reinterpret_cast<sockaddr_in6&>(address).sin6_addr)
                                         : static_cast<void*>(&reinterpret_cast<sockaddr_in&>(address).sin_addr);
  bool const fits = text.empty() || inet_pton(family, text.c_str(), bytes) == 1;
  return fits ? std::optional(address) : std::nullopt;
}

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
