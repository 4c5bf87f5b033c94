// Numbers in network byte order. Any thread.
#pragma once

#include <cstdint>
#include <vector>

namespace kavo::impl {

// size is in bytes.
inline void appendNumber(std::vector<std::uint8_t>& bytes, std::uint64_t number, int size) {
  for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<std::uint8_t>(number >> shift));
  }
}

}  // namespace kavo::impl
