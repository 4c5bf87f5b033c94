// Path MTU: what a path takes in one piece. Event-loop thread.
#pragma once

#include <sys/socket.h>

#include <optional>

namespace kavo::impl {

// The largest UDP payload that reaches the address unfragmented, as far as the
// kernel knows; nothing if the path is unknown.
std::optional<unsigned> maxUdpPayload(sockaddr_storage const& address);

// Sets don't-fragment: the socket refuses (EMSGSIZE) what the path does not take in one piece.
void setDontFragment(int socket, int family);

}  // namespace kavo::impl
