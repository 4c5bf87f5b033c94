// JPEG images to RTP packets (RFC 2435). Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "rtp/framepackets.h"

namespace kavo::impl {

// An image as RTP carries it: a few parameters instead of its header, and the scan data up to
// and including the end-of-image marker.
struct JpegFrame {
  std::uint8_t type;
  std::uint8_t q;      // 128 or more: the quantization tables are sent along
  std::uint8_t width;  // in units of 8 pixels
  std::uint8_t height;
  std::uint8_t precision;
  std::span<std::uint8_t const> tables;
  std::span<std::uint8_t const> scan;
  std::uint16_t restartInterval = 0;  // in MCUs, for types from 64 on
};

// maxPacket, in bytes, must have room for all headers and the tables.
void packetizeJpeg(JpegFrame const& frame, std::size_t maxPacket, FramePackets& packets);

}  // namespace kavo::impl
