// A raw frame whose last byte is directly followed by an unreadable page.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "base/noncopyable.h"
#include "codec/codecparameter.h"
#include "codec/hostnumbers.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace kavo::impl::test {

class GuardedFrame : NonCopyable {
 public:
  explicit GuardedFrame(std::size_t size) : m_Size(size) {
    std::size_t const page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::size_t const data = (size + page - 1) / page * page;
    m_Length = data + page;
    m_Memory = mmap(nullptr, m_Length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(m_Memory, MAP_FAILED);
    m_End = static_cast<std::uint8_t*>(m_Memory) + data;
    EXPECT_EQ(mprotect(m_End, page, PROT_NONE), 0);
  }
  ~GuardedFrame() { munmap(m_Memory, m_Length); }

  std::uint8_t* data() const { return m_End - m_Size; }

 private:
  std::size_t m_Size;
  std::size_t m_Length;
  void* m_Memory;
  std::uint8_t* m_End;
};

inline std::size_t frameSize(std::int32_t hostFormat, int width, int height) {
  return static_cast<std::size_t>(av_image_get_buffer_size(pixelFormatOf(hostFormat), width, height, 1));
}

inline VideoCodecParameter parameters(std::int32_t codec, std::int32_t format, int srcWidth, int srcHeight,
                                      int dstWidth, int dstHeight) {
  VideoCodecParameter parameter;
  parameter.m_SrcWidth = srcWidth;
  parameter.m_SrcHeight = srcHeight;
  parameter.m_DstWidth = dstWidth;
  parameter.m_DstHeight = dstHeight;
  parameter.m_SrcPixelFmt = format;
  parameter.m_DstCodecId = codec;
  parameter.m_FrameRate = 25;
  parameter.m_Bitrate = 2000000;
  return parameter;
}

inline constexpr std::int32_t allFormats[] = {0, 2, 3, 4, 12, 13, 27, 28, 29, 30};

}  // namespace kavo::impl::test
