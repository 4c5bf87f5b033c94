#include "rtp/nalpacketizer.h"

#include <algorithm>
#include <array>

#include "rtp/nalunits.h"

namespace kavo::impl {

namespace {

constexpr std::uint8_t startBit = 0x80;
constexpr std::uint8_t endBit = 0x40;

struct H264Units {
  static constexpr std::size_t headerSize = 1;
  static bool isKey(NalUnit nalUnit) { return typeOf(nalUnit) == NalUnitType::Idr; }
  // The FU indicator, and the FU header without its start and end bits.
  static std::array<std::uint8_t, 2> fragmentHeader(NalUnit nalUnit) {
    constexpr std::uint8_t fuA = 28;
    return {static_cast<std::uint8_t>((nalUnit[0] & 0xE0) | fuA), static_cast<std::uint8_t>(nalUnit[0] & 0x1F)};
  }
};

struct H265Units {
  static constexpr std::size_t headerSize = 2;
  static bool isKey(NalUnit nalUnit) { return isIrap(h265TypeOf(nalUnit)); }
  static std::array<std::uint8_t, 3> fragmentHeader(NalUnit nalUnit) {
    constexpr std::uint8_t fu = 49;
    return {static_cast<std::uint8_t>((nalUnit[0] & 0x81) | fu << 1), nalUnit[1],
            static_cast<std::uint8_t>(h265TypeOf(nalUnit))};
  }
};

template <class Codec>
void addFragments(NalUnit nalUnit, std::size_t maxPacket, bool last, FramePackets& packets) {
  auto header = Codec::fragmentHeader(nalUnit);
  std::uint8_t const type = header.back();
  std::uint8_t position = startBit;
  std::size_t const room = maxPacket - FramePackets::rtpHeaderSize - header.size();
  for (auto rest = nalUnit.subspan(Codec::headerSize); !rest.empty();) {
    auto const part = rest.first(std::min(room, rest.size()));
    rest = rest.subspan(part.size());
    if (rest.empty()) {
      position = endBit;
    }
    header.back() = static_cast<std::uint8_t>(position | type);
    packets.add(header, part, last && rest.empty());
    position = 0;
  }
}

template <class Codec>
bool packetize(std::span<std::uint8_t const> accessUnit, std::size_t maxPacket, FramePackets& packets) {
  bool key = false;
  NalUnit next = takeNalUnit(accessUnit);
  while (!next.empty()) {
    NalUnit const nalUnit = next;
    next = takeNalUnit(accessUnit);
    key = key || Codec::isKey(nalUnit);
    if (FramePackets::rtpHeaderSize + nalUnit.size() <= maxPacket) {
      packets.add({}, nalUnit, next.empty());
    } else {
      addFragments<Codec>(nalUnit, maxPacket, next.empty(), packets);
    }
  }
  return key;
}

}  // namespace

bool packetizeH264(std::span<std::uint8_t const> accessUnit, std::size_t maxPacket, FramePackets& packets) {
  return packetize<H264Units>(accessUnit, maxPacket, packets);
}

bool packetizeH265(std::span<std::uint8_t const> accessUnit, std::size_t maxPacket, FramePackets& packets) {
  return packetize<H265Units>(accessUnit, maxPacket, packets);
}

}  // namespace kavo::impl
