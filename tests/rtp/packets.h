// A frame's packets, for tests and fuzzers; every deviation from RFC 3550 throws.
#pragma once

#include <utility>

#include "rtp/framepackets.h"
#include "rtp/nalunits.h"
#include "rtp/reassembly.h"

namespace reassembly {

constexpr kavo::impl::RtpHeader rtpHeader{
    .payloadType = 96, .sequence = 65530, .timestamp = 0xFFFFFFF0, .ssrc = 0x12345678};

// The NAL units of an access unit in Annex B form.
inline std::vector<Bytes> nalUnitsIn(std::span<std::uint8_t const> bytes) {
  std::vector<Bytes> units;
  for (auto unit = kavo::impl::takeNalUnit(bytes); !unit.empty(); unit = kavo::impl::takeNalUnit(bytes)) {
    units.emplace_back(unit.begin(), unit.end());
  }
  return units;
}

// The packets as they are sent over UDP.
inline std::vector<Bytes> packetsOf(kavo::impl::FramePackets& packets) {
  std::vector<Bytes> result;
  packets.end();
  auto const pieces = packets.datagrams();
  for (std::size_t at = 0; at < pieces.size(); at += 2) {
    Bytes packet;
    for (iovec const& piece : pieces.subspan(at, 2)) {
      auto const* const begin = static_cast<std::uint8_t const*>(piece.iov_base);
      packet.insert(packet.end(), begin, begin + piece.iov_len);
    }
    require(packet.size() == packets.size(result.size()), "a size that is not the packet's");
    result.push_back(std::move(packet));
  }
  return result;
}

// The payloads of the packets that packetize() makes of a frame. Checks all headers (RFC 3550, 5.1).
template <class Packetize>
std::vector<Bytes> payloadsOf(std::size_t maxPacket, Packetize const& packetize) {
  static kavo::impl::FramePackets frame;
  frame.begin(rtpHeader);
  packetize(frame);
  auto const packets = packetsOf(frame);
  std::vector<Bytes> payloads;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    Bytes const& packet = packets[i];
    bool const last = i + 1 == packets.size();
    require(packet.size() > 12 && packet.size() <= maxPacket, "a packet of a wrong size");
    require(packet[0] == 0x80, "not version 2");
    require(packet[1] == (rtpHeader.payloadType | (last ? 0x80 : 0)), "wrong payload type or marker");
    require(numberAt(packet, 2, 2) == static_cast<std::uint16_t>(rtpHeader.sequence + i), "wrong sequence number");
    require(numberAt(packet, 4, 4) == rtpHeader.timestamp, "wrong time stamp");
    require(numberAt(packet, 8, 4) == rtpHeader.ssrc, "wrong SSRC");
    payloads.emplace_back(packet.begin() + 12, packet.end());
  }
  return payloads;
}

}  // namespace reassembly
