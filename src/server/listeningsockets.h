// The TCP sockets that a server accepts its connections on. Any thread.
#pragma once

#include <cstdint>
#include <optional>

#include "base/uniquefd.h"

namespace kavo::impl {

// One socket for each address family that the machine has; -1 inside for one
// that it has not.
struct ListeningSockets {
  UniqueFd ipv4;
  UniqueFd ipv6;
};

// Listens on the port (host byte order) on every local address. Nothing when a
// family that the machine has cannot be bound: a server that only half of its
// clients reach would look like one that works.
std::optional<ListeningSockets> listenOnPort(std::uint16_t port);

}  // namespace kavo::impl
