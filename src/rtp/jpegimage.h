// JPEG images from other encoders, such as those of USB cameras. Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "rtp/jpegpacketizer.h"

namespace kavo::impl {

class JpegImage {
 public:
  // Throws UnusableFrame, with the reason, unless the bytes are a complete image that RTP/JPEG can
  // carry: baseline, 8 bits, 4:2:0 or 4:2:2, in steps of 8 up to 2040x2040, with the standard Huffman
  // tables or none. The bytes are not copied.
  explicit JpegImage(std::span<std::uint8_t const> bytes);

  // Valid as long as this object and the bytes exist.
  JpegFrame const& frame() const { return m_Frame; }

  JpegImage(JpegImage const&) = delete;
  JpegImage& operator=(JpegImage const&) = delete;

 private:
  using Bytes = std::span<std::uint8_t const>;
  static constexpr std::size_t tableSize = 64;
  struct Component {
    std::uint8_t id = 0;
    std::uint8_t sampling = 0;
    std::uint8_t table = 0;
  };

  void readSegment(std::uint8_t marker, Bytes segment);
  void readQuantizationTables(Bytes segment);
  void readFrameHeader(Bytes segment);
  void readScanHeader(Bytes segment);
  void readScan(Bytes scan);

  JpegFrame m_Frame{};
  std::array<Component, 3> m_Components{};  // Y, Cb, Cr
  std::array<Bytes, 4> m_TablesById{};
  std::array<std::uint8_t, 2 * tableSize> m_Tables{};  // for Y, then for Cb and Cr
};

}  // namespace kavo::impl
