#include "rtp/jpegheader.h"

#include <algorithm>

namespace kavo::impl {

namespace {

constexpr std::size_t positions = 623;
constexpr std::size_t tableSize = 64;

// Reads a 16-bit big-endian number of pixels and converts it to units of 8 pixels.
std::uint8_t unitsAt(std::span<std::uint8_t const> bytes) {
  return static_cast<std::uint8_t>(bytes[0] * 32 + bytes[1] / 8);
}

// FFmpeg's encoder uses one scaled table for both components, so the first one in a segment
// serves for both.
JpegHeader::QuantizationTables tablesAt(std::span<std::uint8_t const> table) {
  JpegHeader::QuantizationTables tables;
  std::copy_n(table.begin(), tableSize, tables.begin());
  std::copy_n(table.begin(), tableSize, tables.begin() + tableSize);
  return tables;
}

}  // namespace

JpegHeader readJpegHeader(std::span<std::uint8_t const> image) {
  JpegHeader header;
  for (std::size_t i = 0; i < positions && i + 1 < image.size(); ++i) {
    auto const segment = image.subspan(i);
    auto const startsWith = [&](int first, int second) { return segment[0] == first && segment[1] == second; };
    if (startsWith(0xFF, 0xC0) && !header.size && segment.size() > 8) {
      header.size = {.width = unitsAt(segment.subspan(7)), .height = unitsAt(segment.subspan(5))};
    }
    if (startsWith(0xFF, 0xDB) && segment.size() >= 5 + tableSize) {
      header.tables = tablesAt(segment.subspan(5, tableSize));
    }
    // The end of a baseline start-of-scan header.
    if (startsWith(0x3F, 0x00)) {
      header.length = i + 2;
      break;
    }
  }
  return header;
}

}  // namespace kavo::impl
