// Path MTU discovery. Event-loop thread.
#pragma once

#include <sys/socket.h>

#include <optional>

namespace kavo::impl {

// The largest UDP payload that reaches the address unfragmented, as far as the
// kernel knows; nullopt if the path is unknown.
std::optional<unsigned> maxUdpPayload(sockaddr_storage const& address);

// Sets don't-fragment: datagrams larger than the path MTU fail with EMSGSIZE.
void setDontFragment(int socket, int family);

}  // namespace kavo::impl
