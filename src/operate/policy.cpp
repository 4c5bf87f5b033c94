#include "operate/policy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <toml++/toml.hpp>
#include <utility>

#include "base/address.h"
#include "base/uniquefd.h"

namespace kavo::impl {

namespace {

// The value of one key. Its readers throw what is wrong with it, and where.
class Value {
 public:
  Value(std::string const& file, std::string name, toml::node const& node)
      : m_File(file), m_Name(std::move(name)), m_Node(node) {}

  [[noreturn]] void refuse(std::string const& reason) const { refuseAt(m_Node, reason); }

  std::string text() const {
    auto const* const value = m_Node.as_string();
    if (value == nullptr) {
      refuse(m_Name + " must be a quoted string");
    }
    return plain(value->get(), m_Node);
  }

  std::int64_t number(std::int64_t lowest, std::int64_t highest) const {
    auto const* const value = m_Node.as_integer();
    if (value == nullptr || value->get() < lowest || value->get() > highest) {
      refuse(m_Name + " must be a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest));
    }
    return value->get();
  }

  bool flag() const {
    auto const* const value = m_Node.as_boolean();
    if (value == nullptr) {
      refuse(m_Name + " must be true or false");
    }
    return value->get();
  }

  std::map<std::string, std::string> users() const {
    auto const* const table = m_Node.as_table();
    if (table == nullptr || table->empty()) {
      refuse(m_Name + " must be a table of name = \"password\" with at least one user");
    }
    std::map<std::string, std::string> users;
    for (auto const& [key, node] : *table) {
      if (!node.is_string()) {
        refuseAt(node, "the password of '" + std::string(key.str()) + "' is not a quoted string");
      }
      std::string const name = plain(std::string(key.str()), node);
      if (name.find(':') != std::string::npos) {
        refuseAt(node, "a user name must not contain a colon");
      }
      users[name] = plain(node.as_string()->get(), node);
    }
    return users;
  }

  std::vector<AddressRange> ranges() const {
    auto const* const list = m_Node.as_array();
    if (list == nullptr || list->empty()) {
      refuse(m_Name + " must be a list of at least one address range");
    }
    std::vector<AddressRange> ranges;
    for (auto const& node : *list) {
      auto const range = node.is_string() ? AddressRange::parse(node.as_string()->get()) : std::nullopt;
      if (!range) {
        refuseAt(node, m_Name +
                           " must be ranges such as \"192.0.2.0/24\" or \"2001:db8::1\"; host bits must be zero, " +
                           "and IPv4 addresses are not written as IPv6");
      }
      ranges.push_back(*range);
    }
    return ranges;
  }

  // Calls the reader for each key in the table.
  void table(std::map<std::string, std::function<void(Value const&)>> const& readers) const {
    auto const* const values = m_Node.as_table();
    if (values == nullptr) {
      refuse(m_Name + " must be a table: [" + m_Name + "]");
    }
    for (auto const& [key, node] : *values) {
      auto const name = std::string(key.str());
      auto const reader = readers.find(name);
      std::string const path = m_Name.empty() ? name : m_Name + "." + name;
      if (reader == readers.end()) {
        refuseAt(key.source().begin.line, "unknown key '" + path + "'");
      }
      reader->second(Value(m_File, path, node));
    }
  }

 private:
  [[noreturn]] void refuseAt(std::uint32_t line, std::string const& reason) const {
    throw PolicyError(m_File + ":" + std::to_string(line) + ": " + reason);
  }
  [[noreturn]] void refuseAt(toml::node const& node, std::string const& reason) const {
    refuseAt(node.source().begin.line, reason);
  }

  // Texts become part of response headers.
  std::string plain(std::string text, toml::node const& node) const {
    bool const bad =
        std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F || c == '"'; });
    if (text.empty() || text.size() > 100 || bad) {
      refuseAt(node, m_Name + " must be 1 to 100 bytes without quotes or control characters");
    }
    return text;
  }

  std::string const& m_File;
  std::string m_Name;
  toml::node const& m_Node;
};

// Opens the file without blocking, which matters for a FIFO, and reads it only if it is a small
// regular file.
std::string contentOf(std::string const& file) {
  constexpr off_t largest = 65536;
  constexpr std::size_t longestLine = 4096;  // toml++ recurses into each part of a dotted key
  UniqueFd const descriptor(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status{};
  if (descriptor.get() < 0 || fstat(descriptor.get(), &status) != 0) {
    throw PolicyError(file + ": cannot be read: " + std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode) || status.st_size > largest) {
    throw PolicyError(file + ": must be a regular file of at most 64 kB");
  }
  std::string content(static_cast<std::size_t>(status.st_size), '\0');
  ssize_t const size = read(descriptor.get(), content.data(), content.size());
  if (size < 0) {
    throw PolicyError(file + ": cannot be read: " + std::strerror(errno));
  }
  content.resize(static_cast<std::size_t>(size));
  if (content.find_first_not_of(" \t\r\n") == std::string::npos) {
    throw PolicyError(file + ": is empty");
  }
  for (std::size_t at = 0, line = 1; at != std::string::npos && at < content.size(); ++line) {
    std::size_t const end = std::min(content.find('\n', at), content.size());
    if (end - at > longestLine) {
      throw PolicyError(file + ":" + std::to_string(line) + ": the line is longer than 4096 bytes");
    }
    at = end + 1;
  }
  return content;
}

std::string addressIn(Value const& value) {
  std::string address = value.text();
  auto const range = AddressRange::parse(address);
  if (!range || !range->isOneAddress() || address.find('/') != std::string::npos) {
    value.refuse("server.address must be one IPv4 or IPv6 address of this machine");
  }
  return address;
}

void fill(Policy& policy, Value const& root) {
  constexpr std::int64_t many = 1000000;
  auto const count = [](std::optional<std::size_t>& place) {
    return [&place](Value const& value) { place = static_cast<std::size_t>(value.number(1, many)); };
  };
  root.table({
      {"server",
       [&](Value const& section) {
         section.table({
             {"address", [&](Value const& value) { policy.delivery.address = addressIn(value); }},
             {"max_connections", count(policy.maxConnections)},
             {"max_viewers", count(policy.maxViewers)},
             {"max_viewers_per_address", count(policy.maxViewersPerAddress)},
         });
       }},
      {"access",
       [&](Value const& section) {
         section.table({
             {"realm", [&](Value const& value) { policy.realm = value.text(); }},
             {"users", [&](Value const& value) { policy.users = value.users(); }},
             {"allow", [&](Value const& value) { policy.allow = value.ranges(); }},
         });
       }},
      {"delivery",
       [&](Value const& section) {
         section.table({
             {"max_packet",
              [&](Value const& value) {
                policy.delivery.maxPacket = static_cast<std::size_t>(value.number(512, 8900));
              }},
             {"pace_mbit",
              [&](Value const& value) { policy.delivery.paceMbit = static_cast<int>(value.number(0, 100000)); }},
         });
       }},
      {"encoding",
       [&](Value const& section) {
         section.table({
             {"parallel", [&](Value const& value) { policy.parallelEncoding = value.flag(); }},
         });
       }},
  });
}

}  // namespace

PolicyFile::Look PolicyFile::look() const {
  struct stat status{};
  if (stat(m_Name.c_str(), &status) != 0) {
    return {};
  }
  return {static_cast<std::int64_t>(status.st_ino), status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

Policy PolicyFile::read() {
  m_Read = m_Seen = look();
  return m_Name.empty() ? Policy() : readPolicy(m_Name);
}

bool PolicyFile::hasChanged() {
  if (m_Name.empty()) {
    return false;
  }
  Look const now = look();
  return std::exchange(m_Seen, now) == now && now != m_Read;
}

bool Policy::allows(sockaddr_storage const& from) const {
  return allow.empty() ||
         std::any_of(allow.begin(), allow.end(), [&](AddressRange const& range) { return range.contains(from); });
}

Policy readPolicy(std::string const& file) {
  try {
    toml::table const root = toml::parse(contentOf(file));
    Policy policy;
    fill(policy, Value(file, "", root));
    int const family = policy.delivery.address.find(':') == std::string::npos ? AF_INET : AF_INET6;
    auto const own = localAddress(family, policy.delivery.address);
    auto const every = localAddress(family, "");
    if (own && every && !isSameHost(*own, *every) && !policy.allows(*own)) {
      throw PolicyError(file + ":" + std::to_string(root["access"]["allow"].node()->source().begin.line) +
                        ": access.allow shuts out server.address, " + policy.delivery.address +
                        ": nobody can connect, not even from this machine");
    }
    return policy;
  } catch (toml::parse_error const& error) {
    throw PolicyError(file + ":" + std::to_string(error.source().begin.line) + ": " + std::string(error.description()));
  }
}

}  // namespace kavo::impl
