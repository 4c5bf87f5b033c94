// RTP packets of one picture, or of a part of it, that leave together. They are
// the same for all viewers. Event-loop thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kavo {

struct PacketRun {
  std::vector<std::uint8_t> bytes;  // the packets, one behind the other
  std::vector<std::size_t> sizes;
  bool keyPicture = false;  // of a picture that a viewer can begin with

  void add(std::span<std::uint8_t const> packet) {
    bytes.insert(bytes.end(), packet.begin(), packet.end());
    sizes.push_back(packet.size());
  }
};

}  // namespace kavo
