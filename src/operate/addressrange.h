// A range of IP addresses, such as 192.0.2.0/24 or 2001:db8::1. Any thread.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace kavo::impl {

class AddressRange {
 public:
  // nullopt if the text is not an address or range, host bits are set, or it is an IPv4 address
  // written as IPv6.
  static std::optional<AddressRange> parse(std::string const& text);

  bool isOneAddress() const { return m_PrefixBits == (m_Family == AF_INET6 ? 128 : 32); }
  bool contains(sockaddr_storage const& address) const;

 private:
  using Bytes = std::array<std::uint8_t, 16>;

  // The bytes with everything after the prefix set to zero.
  Bytes network(Bytes bytes) const;

  int m_Family = AF_UNSPEC;
  int m_PrefixBits = 0;
  Bytes m_Bytes{};
};

}  // namespace kavo::impl
