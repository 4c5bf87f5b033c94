#include "server/listeningsockets.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "base/address.h"

namespace kavo::impl {

namespace {

// Returns 0 or the error. If the machine lacks the family or has no such address, returns 0 and opens nothing.
int openFamily(sockaddr_storage const& address, UniqueFd& result) {
  UniqueFd socket(::socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (socket.get() < 0) {
    return errno == EAFNOSUPPORT ? 0 : errno;
  }
  int const on = 1;
  if (address.ss_family == AF_INET6) {
    setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  }
  // SO_REUSEADDR ignores an earlier server's connections in TIME_WAIT, but still refuses a port in
  // use (SO_REUSEPORT would share it).
  if (setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeOf(address)) != 0 ||
      listen(socket.get(), SOMAXCONN) != 0) {
    return errno == EADDRNOTAVAIL ? 0 : errno;
  }
  result = std::move(socket);
  return 0;
}

}  // namespace

std::optional<ListeningSockets> listenOnPort(std::uint16_t port, std::string const& address) {
  ListeningSockets sockets;
  int error = 0;
  for (auto const& [family, socket] : {std::pair(AF_INET, &sockets.ipv4), std::pair(AF_INET6, &sockets.ipv6)}) {
    auto local = localAddress(family, address);
    if (local && error == 0) {
      portOf(*local) = htons(port);
      error = openFamily(*local, *socket);
    }
  }
  if (error == 0 && sockets.ipv4.get() < 0 && sockets.ipv6.get() < 0) {
    error = EADDRNOTAVAIL;
  }
  if (error != 0) {
    sockets = ListeningSockets();
    errno = error;
    return std::nullopt;
  }
  return sockets;
}

}  // namespace kavo::impl
