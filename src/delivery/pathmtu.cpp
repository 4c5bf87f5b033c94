#include "delivery/pathmtu.h"

#include "base/address.h"
#include "base/uniquefd.h"

namespace kavo::impl {

// Asks a connected socket; nothing is sent.
std::optional<unsigned> maxUdpPayload(sockaddr_storage const& address) {
  bool const ipv6 = address.ss_family == AF_INET6;
  int const headers = ipv6 ? 48 : 28;  // IP and UDP
  UniqueFd const probe(socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_storage remote = address;
  portOf(remote) = htons(9);  // connect() needs a port; any will do
  int mtu = 0;
  socklen_t size = sizeof mtu;
  if (probe.get() < 0 || connect(probe.get(), reinterpret_cast<sockaddr const*>(&remote), sizeOf(remote)) != 0 ||
      getsockopt(probe.get(), ipv6 ? IPPROTO_IPV6 : IPPROTO_IP, ipv6 ? IPV6_MTU : IP_MTU, &mtu, &size) != 0 ||
      mtu <= headers) {
    return std::nullopt;
  }
  return static_cast<unsigned>(mtu - headers);
}

void setDontFragment(int socket, int family) {
  int const discover = IP_PMTUDISC_DO;
  static_assert(IP_PMTUDISC_DO == IPV6_PMTUDISC_DO);
  setsockopt(socket, family == AF_INET6 ? IPPROTO_IPV6 : IPPROTO_IP,
             family == AF_INET6 ? IPV6_MTU_DISCOVER : IP_MTU_DISCOVER, &discover, sizeof discover);
}

}  // namespace kavo::impl
