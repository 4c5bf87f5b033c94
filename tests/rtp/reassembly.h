// What a reader of the RFCs makes of a frame's packets, for tests and fuzzers. Written
// without a look at the packetizers; every deviation throws.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "rtp/framepackets.h"

namespace reassembly {

using Bytes = std::vector<std::uint8_t>;

inline void require(bool condition, char const* what) {
  if (!condition) {
    throw std::runtime_error(what);
  }
}

// The packets as they leave over UDP.
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

inline std::uint32_t numberAt(Bytes const& bytes, std::size_t at, int size) {
  std::uint32_t number = 0;
  for (int i = 0; i < size; ++i) {
    number = number << 8 | bytes[at + static_cast<std::size_t>(i)];
  }
  return number;
}

// RFC 3550, 5.1: the payloads, after a look at all headers.
inline std::vector<Bytes> payloadsOf(std::vector<Bytes> const& packets, kavo::impl::RtpHeader const& header,
                                     std::size_t maxPacket) {
  std::vector<Bytes> payloads;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    Bytes const& packet = packets[i];
    bool const last = i + 1 == packets.size();
    require(packet.size() > 12 && packet.size() <= maxPacket, "a packet of a wrong size");
    require(packet[0] == 0x80, "not version 2");
    require(packet[1] == (header.payloadType | (last ? 0x80 : 0)), "wrong payload type or marker");
    require(numberAt(packet, 2, 2) == static_cast<std::uint16_t>(header.sequence + i), "wrong sequence number");
    require(numberAt(packet, 4, 4) == header.timestamp, "wrong time stamp");
    require(numberAt(packet, 8, 4) == header.ssrc, "wrong SSRC");
    payloads.emplace_back(packet.begin() + 12, packet.end());
  }
  return payloads;
}

// RFC 6184: the NAL units.
inline std::vector<Bytes> nalUnitsOf(std::vector<Bytes> const& payloads) {
  std::vector<Bytes> nalUnits;
  bool open = false;
  for (Bytes const& payload : payloads) {
    if ((payload[0] & 0x1F) != 28) {
      require(!open, "fragments without an end");
      nalUnits.push_back(payload);
      continue;
    }
    require(payload.size() > 2, "an empty fragment");
    bool const start = (payload[1] & 0x80) != 0;
    bool const end = (payload[1] & 0x40) != 0;
    auto const first = static_cast<std::uint8_t>((payload[0] & 0xE0) | (payload[1] & 0x1F));
    require(start != open && !(start && end), "fragments out of order");
    if (start) {
      nalUnits.push_back({first});
    }
    require(nalUnits.back()[0] == first, "fragments of different NAL units");
    nalUnits.back().insert(nalUnits.back().end(), payload.begin() + 2, payload.end());
    open = !end;
  }
  require(!open, "fragments without an end");
  return nalUnits;
}

struct Jpeg {
  Bytes header;  // type, Q, width, height
  Bytes tables;
  Bytes scan;
};

// RFC 2435: the image.
inline Jpeg jpegOf(std::vector<Bytes> const& payloads) {
  Jpeg image;
  for (Bytes const& payload : payloads) {
    require(payload.size() > 8, "a header without data");
    require(numberAt(payload, 1, 3) == image.scan.size(), "a fragment offset that does not follow");
    Bytes const header(payload.begin() + 4, payload.begin() + 8);
    require(image.scan.empty() || header == image.header, "fragments with different headers");
    image.header = header;
    std::size_t at = 8;
    if (image.scan.empty() && payload[5] >= 128) {
      std::size_t const length = numberAt(payload, 10, 2);
      at += 4 + length;
      require(at < payload.size(), "tables without data");
      image.tables.assign(payload.begin() + 12, payload.begin() + 12 + static_cast<std::ptrdiff_t>(length));
    }
    image.scan.insert(image.scan.end(), payload.begin() + static_cast<std::ptrdiff_t>(at), payload.end());
  }
  return image;
}

}  // namespace reassembly
