#include "rtp/h264packetizer.h"

#include <algorithm>

#include "rtp/nalunits.h"

namespace kavo::impl {

namespace {

constexpr std::uint8_t fragmentType = 28;  // FU-A
constexpr std::uint8_t startBit = 0x80;
constexpr std::uint8_t endBit = 0x40;

void addFragments(NalUnit nalUnit, std::size_t maxPacket, bool last, FramePackets& packets) {
  auto const indicator = static_cast<std::uint8_t>((nalUnit[0] & 0xE0) | fragmentType);
  auto const type = static_cast<std::uint8_t>(nalUnit[0] & 0x1F);
  std::uint8_t position = startBit;
  std::size_t const room = maxPacket - FramePackets::rtpHeaderSize - 2;
  for (auto rest = nalUnit.subspan(1); !rest.empty();) {
    auto const part = rest.first(std::min(room, rest.size()));
    rest = rest.subspan(part.size());
    if (rest.empty()) {
      position = endBit;
    }
    std::uint8_t const header[] = {indicator, static_cast<std::uint8_t>(position | type)};
    packets.add(header, part, last && rest.empty());
    position = 0;
  }
}

}  // namespace

bool packetizeH264(std::span<std::uint8_t const> accessUnit, std::size_t maxPacket, FramePackets& packets) {
  bool idr = false;
  NalUnit next = takeNalUnit(accessUnit);
  while (!next.empty()) {
    NalUnit const nalUnit = next;
    next = takeNalUnit(accessUnit);
    idr = idr || typeOf(nalUnit) == NalUnitType::Idr;
    if (FramePackets::rtpHeaderSize + nalUnit.size() <= maxPacket) {
      packets.add({}, nalUnit, next.empty());
    } else {
      addFragments(nalUnit, maxPacket, next.empty(), packets);
    }
  }
  return idr;
}

}  // namespace kavo::impl
