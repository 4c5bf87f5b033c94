#include "base/addressrange.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <cstring>

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
  range.m_PrefixBits = allBits;
  if (slash != std::string::npos) {
    char const* const end = text.data() + text.size();
    auto const [stop, error] = std::from_chars(text.data() + slash + 1, end, range.m_PrefixBits);
    if (error != std::errc() || stop != end || range.m_PrefixBits < 0 || range.m_PrefixBits > allBits) {
      return std::nullopt;
    }
  }
  // 192.0.2.7/24 may be meant as one address or as its network.
  Bytes network{};
  for (int bit = 0; bit < range.m_PrefixBits; ++bit) {
    auto const at = static_cast<std::size_t>(bit / 8);
    network[at] = static_cast<std::uint8_t>(network[at] | (range.m_Bytes[at] & (0x80 >> bit % 8)));
  }
  return network == range.m_Bytes ? std::optional(range) : std::nullopt;
}

AddressRange::Bytes AddressRange::bytesOf(sockaddr_storage const& address) {
  Bytes bytes{};
  if (address.ss_family == AF_INET6) {
    std::memcpy(bytes.data(), &reinterpret_cast<sockaddr_in6 const&>(address).sin6_addr, 16);
  } else {
    std::memcpy(bytes.data(), &reinterpret_cast<sockaddr_in const&>(address).sin_addr, 4);
  }
  return bytes;
}

bool AddressRange::contains(sockaddr_storage const& address) const {
  return address.ss_family == m_Family && isSamePrefix(bytesOf(address));
}

bool AddressRange::isSamePrefix(Bytes const& other) const {
  for (int bit = 0; bit < m_PrefixBits; ++bit) {
    auto const at = static_cast<std::size_t>(bit / 8);
    if (((m_Bytes[at] ^ other[at]) & (0x80 >> bit % 8)) != 0) {
      return false;
    }
  }
  return true;
}

}  // namespace kavo::impl
