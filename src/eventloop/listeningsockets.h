// The TCP sockets that a server accepts its connections on. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

namespace kavo {

// A socket that is closed with its owner.
class Socket {
 public:
  explicit Socket(int descriptor = -1) : m_Descriptor(descriptor) {}
  ~Socket();
  Socket(Socket&& other) noexcept : m_Descriptor(std::exchange(other.m_Descriptor, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(m_Descriptor, other.m_Descriptor);
    return *this;
  }

  int get() const { return m_Descriptor; }
  int release() { return std::exchange(m_Descriptor, -1); }

 private:
  int m_Descriptor;
};

// One socket for each address family that the machine has; -1 inside for one
// that it has not.
struct ListeningSockets {
  Socket ipv4;
  Socket ipv6;
};

// Listens on the port (host byte order) on every local address. Nothing when a
// family that the machine has cannot be bound: a server that only half of its
// clients reach would look like one that works.
std::optional<ListeningSockets> listenOnPort(std::uint16_t port);

}  // namespace kavo
