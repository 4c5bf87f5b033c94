// The buffer that a sink lends its source for one frame; it grows with the frames
// of the stream. Event-loop thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace kavo::impl {

class FrameBuffer {
 public:
  // A frame that is larger arrives truncated.
  static constexpr std::size_t largestFrame = 8000000;

  std::uint8_t* data() const { return m_Bytes.get(); }
  std::size_t size() const { return m_Size; }

  // Makes room for a frame of the size, up to the largest; what was in it is lost.
  void reserve(std::size_t size) {
    size = std::min(size, largestFrame);
    if (size > m_Size) {
      // A quarter more than asked for, so that slowly growing frames rarely find it too small.
      std::size_t const rounded = std::min(largestFrame, size + size / 4);
      m_Bytes.reset(new std::uint8_t[rounded]);
      m_Size = rounded;
    }
  }

 private:
  std::unique_ptr<std::uint8_t[]> m_Bytes;
  std::size_t m_Size = 0;
};

}  // namespace kavo::impl
