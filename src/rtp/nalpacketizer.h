// Access units to RTP packets: H.264 (RFC 6184, packetization mode 1) and H.265 (RFC 7798,
// without decoding order numbers). Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "rtp/framepackets.h"

namespace kavo::impl {

// The access unit is in Annex B form. A NAL unit that fits in a packet of maxPacket bytes is
// sent unchanged, a larger one in fragments (FU-A, FU). Returns whether decoding can start
// with the picture: IDR, in H.265 any IRAP.
bool packetizeH264(std::span<std::uint8_t const> accessUnit, std::size_t maxPacket, FramePackets& packets);
bool packetizeH265(std::span<std::uint8_t const> accessUnit, std::size_t maxPacket, FramePackets& packets);

}  // namespace kavo::impl
