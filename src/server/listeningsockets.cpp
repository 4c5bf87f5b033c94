#include "server/listeningsockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace kavo::impl {

namespace {

template <class Address>
bool bindAndListen(int descriptor, Address const& address) {
  // SO_REUSEADDR ignores an earlier server's connections in TIME_WAIT, but still
  // refuses a port in use (SO_REUSEPORT would share it).
  int const on = 1;
  return setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
         bind(descriptor, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 &&
         listen(descriptor, SOMAXCONN) == 0;
}

// False if the family is available but the port is not.
template <class Address>
bool openFamily(Address const& address, int family, UniqueFd& result) {
  UniqueFd socket(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (socket.get() < 0) {
    return errno == EAFNOSUPPORT;
  }
  int const on = 1;
  if (family == AF_INET6) {
    setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  }
  if (!bindAndListen(socket.get(), address)) {
    int const error = errno;
    socket = UniqueFd();
    errno = error;
    return error == EADDRNOTAVAIL;
  }
  result = std::move(socket);
  return true;
}

}  // namespace

std::optional<ListeningSockets> listenOnPort(std::uint16_t port, std::string const& address) {
  sockaddr_in ipv4{};
  ipv4.sin_family = AF_INET;
  ipv4.sin_port = htons(port);
  sockaddr_in6 ipv6{};
  ipv6.sin6_family = AF_INET6;
  ipv6.sin6_port = htons(port);

  bool const isIpv4 = address.empty() || inet_pton(AF_INET, address.c_str(), &ipv4.sin_addr) == 1;
  bool const isIpv6 = address.empty() || inet_pton(AF_INET6, address.c_str(), &ipv6.sin6_addr) == 1;

  ListeningSockets sockets;
  bool const complete =
      (!isIpv4 || openFamily(ipv4, AF_INET, sockets.ipv4)) && (!isIpv6 || openFamily(ipv6, AF_INET6, sockets.ipv6));
  bool const any = sockets.ipv4.get() >= 0 || sockets.ipv6.get() >= 0;
  if (!complete || !any) {
    int const error = complete ? EADDRNOTAVAIL : errno;
    sockets = ListeningSockets();
    errno = error;
    return std::nullopt;
  }
  return sockets;
}

}  // namespace kavo::impl
