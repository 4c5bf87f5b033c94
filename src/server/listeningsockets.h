// The TCP sockets that a server accepts its connections on. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/uniquefd.h"

namespace kavo::impl {

// One socket per address family; -1 where the family is missing.
struct ListeningSockets {
  UniqueFd ipv4;
  UniqueFd ipv6;
};

// Listens on the port (host byte order), on the given local address or, if it is
// empty, on every one. nullopt when an available family cannot be bound: a server
// that half of its clients cannot reach would appear to work; errno says why.
std::optional<ListeningSockets> listenOnPort(std::uint16_t port, std::string const& address);

}  // namespace kavo::impl
