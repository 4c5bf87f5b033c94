// H.264 access units to RTP packets (RFC 6184, packetization mode 1). Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "rtp/framepackets.h"

namespace kavo::impl {

// The access unit is in Annex B form. A NAL unit that fits a packet of maxPacket
// bytes is sent as it is, a larger one in FU-A fragments. True for an IDR picture.
bool packetizeH264(std::span<std::uint8_t const> accessUnit, std::size_t maxPacket, FramePackets& packets);

}  // namespace kavo::impl
