#include "rtp/jpegpacketizer.h"

#include <algorithm>
#include <array>

namespace kavo::impl {

namespace {

constexpr std::size_t mainHeaderSize = 8;
constexpr std::size_t restartHeaderSize = 4;
constexpr std::size_t tablesHeaderSize = 4;
constexpr std::size_t maxTables = 128;

using Header = std::array<std::uint8_t, mainHeaderSize + restartHeaderSize + tablesHeaderSize + maxTables>;

std::uint8_t byteOf(std::size_t number, int index) { return static_cast<std::uint8_t>(number >> 8 * index); }

// Writes the main header, the restart header for types that have one, and, at the start of a
// frame, the tables. Returns their size.
std::size_t writeHeader(JpegFrame const& frame, std::size_t offset, Header& header) {
  header = {0, byteOf(offset, 2), byteOf(offset, 1), byteOf(offset, 0), frame.type, frame.q, frame.width, frame.height};
  std::size_t size = mainHeaderSize;
  constexpr std::uint8_t firstWithRestarts = 64;
  if (frame.type >= firstWithRestarts) {
    // Packets do not begin at restart markers, so only a complete frame can be decoded.
    constexpr std::uint8_t wholeFrame = 0xFF;
    for (auto const byte :
         {byteOf(frame.restartInterval, 1), byteOf(frame.restartInterval, 0), wholeFrame, wholeFrame}) {
      header[size++] = byte;
    }
  }
  if (offset > 0 || frame.q < 128) {
    return size;
  }
  auto const tables = frame.tables.first(std::min(maxTables, frame.tables.size()));
  header[size + 1] = frame.precision;
  header[size + 2] = byteOf(tables.size(), 1);
  header[size + 3] = byteOf(tables.size(), 0);
  size += tablesHeaderSize;
  std::ranges::copy(tables, header.begin() + static_cast<std::ptrdiff_t>(size));
  return size + tables.size();
}

}  // namespace

void packetizeJpeg(JpegFrame const& frame, std::size_t maxPacket, FramePackets& packets) {
  Header header;
  for (std::size_t offset = 0; offset < frame.scan.size();) {
    std::size_t const headerSize = writeHeader(frame, offset, header);
    auto const rest = frame.scan.subspan(offset);
    auto const part = rest.first(std::min(maxPacket - FramePackets::rtpHeaderSize - headerSize, rest.size()));
    packets.add(std::span(header).first(headerSize), part, part.size() == rest.size());
    offset += part.size();
  }
}

}  // namespace kavo::impl
