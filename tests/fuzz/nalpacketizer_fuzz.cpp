// Any bytes as an access unit of H.264 or H.265, any packet size: the NAL units that a reader
// puts together are those of the access unit.
#include "rtp/nalpacketizer.h"
#include "rtp/nalunits.h"
#include "rtp/packets.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  bool const isH265 = data[1] >= 128;
  std::size_t const headerSize = isH265 ? 2 : 1;
  std::size_t const maxPacket = 20 + data[0] * 5U + data[1] % 5;
  std::span<std::uint8_t const> rest(data + 2, size - 2);
  kavo::impl::RtpHeader const header{.payloadType = 96, .sequence = 1, .timestamp = 2, .ssrc = 3};
  kavo::impl::FramePackets packets;
  packets.begin(header);
  (isH265 ? kavo::impl::packetizeH265 : kavo::impl::packetizeH264)(rest, maxPacket, packets);
  std::vector<reassembly::Bytes> expected;
  for (auto unit = kavo::impl::takeNalUnit(rest); !unit.empty(); unit = kavo::impl::takeNalUnit(rest)) {
    bool const isFragment = isH265 ? (unit[0] >> 1 & 0x3F) == 49 : (unit[0] & 0x1F) == 28;
    if (isFragment || unit.size() < headerSize) {
      return 0;  // looks like a fragment, or is none
    }
    expected.emplace_back(unit.begin(), unit.end());
  }
  auto const payloads = reassembly::payloadsOf(reassembly::packetsOf(packets), header, maxPacket);
  reassembly::require(reassembly::nalUnitsOf(payloads, headerSize) == expected, "other NAL units");
  return 0;
}
