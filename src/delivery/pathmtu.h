// The way to a viewer. Event-loop thread.
#pragma once

#include <sys/socket.h>

#include <optional>

namespace kavo {

// The largest UDP payload that reaches the address in one piece, as far as the
// kernel knows; nothing if it does not know the way.
std::optional<unsigned> largestPayloadTo(sockaddr_storage const& address);

// Has the socket refuse (EMSGSIZE) what the path does not take in one piece.
void refuseToFragment(int socket, int family);

}  // namespace kavo
