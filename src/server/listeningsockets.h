// The TCP sockets that a server accepts its connections on. Any thread.
#pragma once

#include <cstdint>
#include <optional>

#include "base/uniquefd.h"

namespace kavo::impl {

// One socket per address family; -1 where the family is missing.
struct ListeningSockets {
  UniqueFd ipv4;
  UniqueFd ipv6;
};

// Listens on the port (host byte order) on every local address. nullopt when an
// available family cannot be bound: a server that half of its clients cannot reach
// would appear to work.
std::optional<ListeningSockets> listenOnPort(std::uint16_t port);

}  // namespace kavo::impl
