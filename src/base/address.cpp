#include "base/address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <memory>

namespace kavo::impl {

std::optional<sockaddr_storage> localAddress(int family, std::string const& text) {
  sockaddr_storage address{};
  address.ss_family = static_cast<sa_family_t>(family);
  bool const fits = text.empty() || inet_pton(family, text.c_str(), bytesOf(address).data()) == 1;
  return fits ? std::optional(address) : std::nullopt;
}

namespace {

std::string hostOf(sockaddr const& address) {
  char host[INET6_ADDRSTRLEN] = {};
  bool const ipv6 = address.sa_family == AF_INET6;
  void const* const bytes = ipv6 ? static_cast<void const*>(&reinterpret_cast<sockaddr_in6 const&>(address).sin6_addr)
                                 : static_cast<void const*>(&reinterpret_cast<sockaddr_in const&>(address).sin_addr);
  inet_ntop(address.sa_family, bytes, host, sizeof host);
  return host;
}

}  // namespace

std::string machineAddress() {
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) {
    return "127.0.0.1";
  }
  std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> const owner(all, freeifaddrs);
  std::string ipv6;
  for (ifaddrs const* entry = all; entry != nullptr; entry = entry->ifa_next) {
    unsigned const state = entry->ifa_flags & (IFF_UP | IFF_RUNNING | IFF_LOOPBACK);
    if (entry->ifa_addr == nullptr || state != (IFF_UP | IFF_RUNNING)) {
      continue;
    }
    if (entry->ifa_addr->sa_family == AF_INET) {
      return hostOf(*entry->ifa_addr);
    }
    bool const isGlobal = entry->ifa_addr->sa_family == AF_INET6 &&
                          !IN6_IS_ADDR_LINKLOCAL(&reinterpret_cast<sockaddr_in6 const*>(entry->ifa_addr)->sin6_addr);
    ipv6 = ipv6.empty() && isGlobal ? hostOf(*entry->ifa_addr) : ipv6;
  }
  return ipv6.empty() ? "127.0.0.1" : ipv6;
}

std::string textOf(sockaddr_storage const& address) {
  std::string const host = hostOf(reinterpret_cast<sockaddr const&>(address));
  std::string const port = ":" + std::to_string(ntohs(portOf(address)));
  return address.ss_family == AF_INET6 ? "[" + host + "]" + port : host + port;
}

}  // namespace kavo::impl
