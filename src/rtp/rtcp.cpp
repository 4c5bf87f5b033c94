#include "rtp/rtcp.h"

#include "rtp/bigendian.h"

namespace kavo::impl {

namespace {

constexpr std::uint8_t senderReport = 200;
constexpr std::uint8_t receiverReport = 201;
constexpr std::uint8_t sourceDescription = 202;
constexpr std::uint8_t byePacket = 203;
constexpr std::uint8_t payloadFeedback = 206;
constexpr int pictureLoss = 1;
constexpr int fullIntraRequest = 4;
constexpr std::uint8_t cnameItem = 1;
constexpr std::size_t blockSize = 24;

// A packet's header; count is the number of report blocks or sources, words the length after
// the header.
void appendHeader(std::vector<std::uint8_t>& packet, int count, std::uint8_t type, std::size_t words) {
  packet.push_back(static_cast<std::uint8_t>(2 << 6 | count));
  packet.push_back(type);
  appendNumber(packet, words, 2);
}

std::uint32_t numberAt(std::span<std::uint8_t const> bytes, std::size_t at, int size = 4) {
  std::uint32_t number = 0;
  for (int i = 0; i < size; ++i) {
    number = number << 8 | bytes[at + static_cast<std::size_t>(i)];
  }
  return number;
}

ReportBlock blockAt(std::span<std::uint8_t const> bytes) {
  ReportBlock block;
  block.fractionLost = bytes[4];
  // A signed number of 24 bits.
  block.packetsLost = static_cast<std::int32_t>(numberAt(bytes, 5, 3) << 8) >> 8;
  block.highestSequence = numberAt(bytes, 8);
  block.jitter = numberAt(bytes, 12);
  block.lastSenderReport = numberAt(bytes, 16);
  block.sinceSenderReport = numberAt(bytes, 20);
  return block;
}

// Picture loss names the sender in its header, full intra request in the entry after it.
bool isKeyFrameRequest(std::span<std::uint8_t const> packet, std::uint32_t ssrc) {
  int const kind = packet[0] & 0x1F;
  return packet[1] == payloadFeedback &&
         ((kind == pictureLoss && packet.size() >= 12 && numberAt(packet, 8) == ssrc) ||
          (kind == fullIntraRequest && packet.size() >= 16 && numberAt(packet, 12) == ssrc));
}

}  // namespace

std::vector<std::uint8_t> makeSenderReport(SenderInfo const& info, std::string_view cname, bool bye) {
  std::vector<std::uint8_t> packet;
  packet.reserve(64 + cname.size());
  appendHeader(packet, 0, senderReport, 6);
  appendNumber(packet, info.ssrc, 4);
  appendNumber(packet, info.ntpTime, 8);
  appendNumber(packet, info.rtpTime, 4);
  appendNumber(packet, info.packets, 4);
  appendNumber(packet, info.octets, 4);
  // Items end with a zero, and the chunk at a multiple of four bytes.
  std::size_t const words = 1 + (2 + cname.size()) / 4 + 1;
  appendHeader(packet, 1, sourceDescription, words);
  std::size_t const end = packet.size() + 4 * words;
  appendNumber(packet, info.ssrc, 4);
  packet.push_back(cnameItem);
  packet.push_back(static_cast<std::uint8_t>(cname.size()));
  packet.insert(packet.end(), cname.begin(), cname.end());
  packet.resize(end);
  if (bye) {
    appendHeader(packet, 1, byePacket, 1);
    appendNumber(packet, info.ssrc, 4);
  }
  return packet;
}

std::optional<ReceiverReport> readReceiverReport(std::span<std::uint8_t const> packet, std::uint32_t ssrc) {
  std::optional<ReceiverReport> report;
  while (packet.size() >= 8 && packet[0] >> 6 == 2) {
    std::uint8_t const type = packet[1];
    std::size_t const size = 4 * (std::size_t{numberAt(packet, 2, 2)} + 1);
    bool const isReport = type == senderReport || type == receiverReport;
    if (size > packet.size() || (!report && !isReport)) {
      break;
    }
    report = report.value_or(ReceiverReport());
    std::size_t at = type == senderReport ? 28 : 8;
    for (int count = isReport ? packet[0] & 0x1F : 0; count > 0 && at + blockSize <= size; --count, at += blockSize) {
      if (numberAt(packet, at) == ssrc) {
        report->block = blockAt(packet.subspan(at));
      }
    }
    report->wantsKeyFrame = report->wantsKeyFrame || isKeyFrameRequest(packet.first(size), ssrc);
    packet = packet.subspan(size);
  }
  return report;
}

}  // namespace kavo::impl
