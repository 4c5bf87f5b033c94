#include "delivery/udpports.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "base/address.h"
#include "delivery/pathmtu.h"

namespace kavo::impl {

namespace {

constexpr unsigned firstPort = 6970;
constexpr unsigned lastPort = 65534;
// The kernel caps it at its own limit.
constexpr int sendBuffer = 4 * 1024 * 1024;

UniqueFd openSocket(int family) {
  UniqueFd socket(::socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  int const on = 1;
  if (family == AF_INET6) {
    setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  }
  setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
  setDontFragment(socket.get(), family);
  return socket;
}

// Has the error queue report ECONNREFUSED for sent reports, with the destination address.
void setReceiveErrors(UniqueFd const& socket, int family) {
  int const on = 1;
  setsockopt(socket.get(), family == AF_INET6 ? IPPROTO_IPV6 : IPPROTO_IP,
             family == AF_INET6 ? IPV6_RECVERR : IP_RECVERR, &on, sizeof on);
}

// Returns 0 or the error.
int bindTo(sockaddr_storage local, unsigned port, UniqueFd const& socket) {
  portOf(local) = htons(static_cast<std::uint16_t>(port));
  return bind(socket.get(), reinterpret_cast<sockaddr const*>(&local), sizeOf(local)) == 0 ? 0 : errno;
}

}  // namespace

// Tries the next port only if this one is in use: without descriptors the search would
// otherwise try them all.
std::optional<UdpPorts> UdpPorts::open(int family, std::string const& address) {
  auto const local = localAddress(family, address);
  if (!local) {
    return std::nullopt;
  }
  int error = EADDRINUSE;
  for (unsigned port = firstPort; port < lastPort && error == EADDRINUSE; port += 2) {
    UniqueFd rtp = openSocket(family);
    UniqueFd rtcp = openSocket(family);
    if (rtp.get() < 0 || rtcp.get() < 0) {
      break;
    }
    error = bindTo(*local, port, rtp);
    error = error == 0 ? bindTo(*local, port + 1, rtcp) : error;
    if (error == 0) {
      setReceiveErrors(rtcp, family);
      return UdpPorts(std::move(rtp), std::move(rtcp), static_cast<std::uint16_t>(port));
    }
  }
  return std::nullopt;
}

}  // namespace kavo::impl
