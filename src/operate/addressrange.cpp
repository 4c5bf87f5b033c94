#include "operate/addressrange.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>

#include "base/address.h"

namespace kavo::impl {

std::optional<AddressRange> AddressRange::parse(std::string const& text) {
  auto const slash = text.find('/');
  std::string const address = text.substr(0, slash);
  AddressRange range;
  range.m_Family = address.find(':') != std::string::npos ? AF_INET6 : AF_INET;
  int const allBits = range.m_Family == AF_INET6 ? 128 : 32;
  if (inet_pton(range.m_Family, address.c_str(), range.m_Bytes.data()) != 1) {
    return std::nullopt;
  }
  if (range.m_Family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(reinterpret_cast<in6_addr const*>(range.m_Bytes.data()))) {
    return std::nullopt;  // never matches: IPv6 sockets do not accept IPv4
  }
  range.m_PrefixBits = allBits;
  if (slash != std::string::npos) {
    char const* const end = text.data() + text.size();
    auto const [stop, error] = std::from_chars(text.data() + slash + 1, end, range.m_PrefixBits);
    if (error != std::errc() || stop != end || range.m_PrefixBits < 0 || range.m_PrefixBits > allBits) {
      return std::nullopt;
    }
  }
  // 192.0.2.7/24 is ambiguous: one address or its network.
  return range.network(range.m_Bytes) == range.m_Bytes ? std::optional(range) : std::nullopt;
}

AddressRange::Bytes AddressRange::network(Bytes bytes) const {
  for (int bit = m_PrefixBits; bit < 128; ++bit) {
    auto& byte = bytes[static_cast<std::size_t>(bit / 8)];
    byte = static_cast<std::uint8_t>(byte & ~(0x80 >> bit % 8));
  }
  return bytes;
}

bool AddressRange::contains(sockaddr_storage const& address) const {
  Bytes bytes{};
  std::ranges::copy(bytesOf(address), bytes.begin());
  return address.ss_family == m_Family && network(bytes) == m_Bytes;
}

}  // namespace kavo::impl
