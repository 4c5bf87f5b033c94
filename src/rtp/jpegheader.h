// Reads from a JPEG image the parameters that RTP/JPEG sends instead of its header. Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kavo::impl {

struct JpegHeader {
  // Luminance and chrominance tables of 64 bytes each.
  using QuantizationTables = std::array<std::uint8_t, 128>;
  struct Size {
    std::uint8_t width;  // in units of 8 pixels
    std::uint8_t height;
  };

  std::size_t length = 0;  // bytes before the scan data; 0: not found
  std::optional<Size> size;
  std::optional<QuantizationTables> tables;
};

// Looks for markers at the first 623 positions of the image, never past its end.
JpegHeader readJpegHeader(std::span<std::uint8_t const> image);

}  // namespace kavo::impl
