// Servers on free ports.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <kavo/stream.hpp>
#include <optional>

#include "base/uniquefd.h"

// A TCP port that is free on both address families.
inline std::uint16_t freePort() {
  kavo::impl::UniqueFd const socket(::socket(AF_INET6, SOCK_STREAM, 0));
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  socklen_t size = sizeof address;
  bind(socket.get(), reinterpret_cast<sockaddr const*>(&address), size);
  getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin6_port);
}

// Starts the server on a free port and returns the port, or 0 after 20 attempts: another program may take the port.
inline std::uint16_t startOnFreePort(std::optional<kavo::Server>& server) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    try {
      auto const port = freePort();
      server.emplace(port);
      return port;
    } catch (kavo::Error const&) {
    }
  }
  return 0;
}
