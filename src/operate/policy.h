// Operator settings, independent of the host program: who may watch, from where, how many,
// and how frames are sent and encoded. Without a policy file it is as below. Any thread.
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
    std::string address;           // of this machine, to listen on and send from alone; empty: all
    std::size_t maxPacket = 1400;  // RTP packet, bytes: what fits every ordinary path, with room for tunnels
    std::optional<int> paceMbit;   // rate at which large frames leave over UDP; 0: all at once

    bool operator==(Delivery const&) const = default;
  };

  std::optional<std::size_t> maxConnections;
  std::optional<std::size_t> maxViewers;
  std::optional<std::size_t> maxViewersPerAddress;

  std::string realm = "live video";
  std::map<std::string, std::string> users;  // names and passwords; empty: anyone may watch
  std::vector<AddressRange> allow;           // empty: from everywhere

  Delivery delivery;
  bool parallelEncoding = false;  // of different streams

  bool allows(sockaddr_storage const& address) const;
};

// Says file, line and reason.
struct PolicyError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws PolicyError.
Policy readPolicy(std::string const& file);

// A policy file that may change. One thread at a time.
class PolicyFile {
 public:
  // An empty name: there is none, and everything is allowed.
  explicit PolicyFile(std::string name) : m_Name(std::move(name)) {}

  std::string const& name() const { return m_Name; }
  // Throws PolicyError.
  Policy read();
  // Call once a second: whether it is another file than was read last, and has been still
  // since the last call.
  bool hasChanged();

 private:
  using Look = std::array<std::int64_t, 4>;  // inode, size and time

  Look look() const;

  std::string m_Name;
  Look m_Read{};
  Look m_Seen{};
};

}  // namespace kavo::impl
