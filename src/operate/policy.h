// What an operator may set beside the host: who may watch, from where, how many, and
// how frames are sent and encoded. Without a policy file it is as below. Any thread.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "operate/addressrange.h"

namespace kavo::impl {

struct Policy {
  struct Delivery {
    std::string address;           // of this machine, to listen on and send from alone; empty: all
    std::size_t maxPacket = 1400;  // RTP packet, bytes: what fits every ordinary path, with room for tunnels
    std::optional<int> paceMbit;   // rate at which large frames leave over UDP; 0: all at once
  };

  std::optional<std::size_t> maxConnections;
  std::optional<std::size_t> maxViewers;
  std::optional<std::size_t> maxViewersPerAddress;

  std::string realm = "live video";
  std::map<std::string, std::string> users;  // names and passwords; empty: everybody may watch
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

}  // namespace kavo::impl
