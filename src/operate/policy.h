// The operator's settings, independent of the host program: who may watch, from where, how
// many, and how frames are sent and encoded. The defaults apply without a policy file. Any
// thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "operate/addressrange.h"

namespace kavo::impl {

struct Policy {
  struct Delivery {
    std::string address;           // the only local address to listen on and send from; empty: all
    std::size_t maxPacket = 1400;  // RTP packet, bytes; fits every ordinary path, with room for tunnels
    std::optional<int> paceMbit;   // rate at which large frames are sent over UDP; 0: all at once

    bool operator==(Delivery const&) const = default;
  };

  std::optional<std::size_t> maxConnections;
  std::optional<std::size_t> maxViewers;
  std::optional<std::size_t> maxViewersPerAddress;

  std::string realm = "live video";
  std::map<std::string, std::string> users;  // names and passwords; empty: anyone may watch
  std::vector<AddressRange> allow;           // empty: from everywhere

  Delivery delivery;
  bool parallelEncoding = false;  // whether different streams encode in parallel

  bool allows(sockaddr_storage const& address) const;
};

// The message gives file, line and reason.
struct PolicyError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws PolicyError.
Policy readPolicy(std::string const& file);

// A policy file that may change. One thread at a time.
class PolicyFile {
 public:
  // An empty name means that there is no file, and everything is allowed.
  explicit PolicyFile(std::string name) : m_Name(std::move(name)) {}

  std::string const& name() const { return m_Name; }
  // Throws PolicyError.
  Policy read();
  // Call once a second. Whether the file differs from the one read last and has not changed
  // since the previous call.
  bool hasChanged();

 private:
  using Look = std::array<std::int64_t, 4>;  // inode, size and time

  Look look() const;

  std::string m_Name;
  Look m_Read{};
  Look m_Seen{};
};

}  // namespace kavo::impl
