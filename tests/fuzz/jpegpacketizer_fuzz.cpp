// Any bytes as scan data, tables and parameters, any packet size: the image that a
// reader puts together is the same.
#include <algorithm>

#include "rtp/jpegpacketizer.h"
#include "rtp/packets.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size < 8) {
    return 0;
  }
  std::size_t const maxPacket = 160 + data[0] * 5U + data[1] % 5;
  std::span<std::uint8_t const> const rest(data + 8, size - 8);
  auto const tables = rest.first(std::min<std::size_t>(data[2] % 129, rest.size()));
  kavo::impl::RtpHeader const header{.payloadType = 26, .sequence = 1, .timestamp = 2, .ssrc = 3};
  kavo::impl::FramePackets packets;
  packets.begin(header);
  kavo::impl::packetizeJpeg({.type = data[3],
                             .q = data[4],
                             .width = data[5],
                             .height = data[6],
                             .precision = data[7],
                             .tables = tables,
                             .scan = rest},
                            maxPacket, packets);
  auto const image = reassembly::jpegOf(reassembly::payloadsOf(reassembly::packetsOf(packets), header, maxPacket));
  bool const hasTables = data[4] >= 128 && !rest.empty();
  reassembly::require(std::equal(image.scan.begin(), image.scan.end(), rest.begin(), rest.end()), "another image");
  reassembly::require(image.tables == reassembly::Bytes(tables.begin(), hasTables ? tables.end() : tables.begin()),
                      "other tables");
  return 0;
}
