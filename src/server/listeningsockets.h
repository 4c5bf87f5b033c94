// The TCP sockets on which a server accepts connections. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/uniquefd.h"

namespace kavo::impl {

// One socket per address family; -1 if the machine lacks the family.
struct ListeningSockets {
  UniqueFd ipv4;
  UniqueFd ipv6;
};

// Listens on the port (host byte order) of the given local address or, if it is empty, of
// all addresses. nullopt, with errno set, if an available family cannot be bound: a server
// that half of its clients cannot reach would appear to work.
std::optional<ListeningSockets> listenOnPort(std::uint16_t port, std::string const& address);

}  // namespace kavo::impl
