// One encoded frame with its RTP packets, shared by all transports that are still sending it.
// Event-loop thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "base/noncopyable.h"
#include "rtp/framepackets.h"

namespace kavo::impl {

// Filled by the source and packetized by the sink; immutable afterwards.
class Frame : NonCopyable {
 public:
  // Larger frames are truncated.
  static constexpr std::size_t largest = 8000000;

  // Makes room for that many bytes, up to the limit. Discards the content.
  std::span<std::uint8_t> reserve(std::size_t size) {
    size = std::min(size, largest);
    if (size > m_Size) {
      // A quarter more than requested, so that slowly growing frames rarely reallocate.
      m_Size = 0;
      std::size_t const rounded = std::min(largest, size + size / 4);
      m_Bytes.reset(new std::uint8_t[rounded]);
      m_Size = rounded;
    }
    return {m_Bytes.get(), m_Size};
  }
  std::uint8_t const* data() const { return m_Bytes.get(); }

  FramePackets packets;
  bool isKeyFrame = false;
  std::chrono::steady_clock::time_point submitted;

 private:
  std::unique_ptr<std::uint8_t[]> m_Bytes;
  std::size_t m_Size = 0;
};

using FramePtr = std::shared_ptr<Frame>;

// Reuses the memory of frames that nobody references any more.
class FramePool {
 public:
  FramePtr take() {
    constexpr std::ptrdiff_t spare = 4;
    auto const isFree = [](FramePtr const& frame) { return frame.use_count() == 1; };
    auto const free = std::ranges::count_if(m_Frames, isFree);
    if (free == 0) {
      return m_Frames.emplace_back(std::make_shared<Frame>());
    }
    FramePtr const frame = *std::ranges::find_if(m_Frames, isFree);
    if (free > spare) {
      std::erase_if(m_Frames, isFree);
    }
    return frame;
  }

 private:
  std::vector<FramePtr> m_Frames;
};

}  // namespace kavo::impl
