#include "system/rtpchecker.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace {

std::uint32_t numberAt(std::span<std::uint8_t const> bytes, std::size_t at, int size) {
  std::uint32_t number = 0;
  for (int i = 0; i < size; ++i) {
    number = number << 8 | bytes[at + static_cast<std::size_t>(i)];
  }
  return number;
}

bool holdsStartCode(std::span<std::uint8_t const> bytes) {
  constexpr std::uint8_t startCode[] = {0, 0, 1};
  return std::search(bytes.begin(), bytes.end(), std::begin(startCode), std::end(startCode)) != bytes.end();
}

}  // namespace

void RtpChecker::require(bool condition, char const* what) {
  if (!condition && m_Complaints.size() < 20) {
    m_Complaints.push_back("packet " + std::to_string(m_Packets) + ": " + what);
  }
}

void RtpChecker::rtp(std::span<std::uint8_t const> packet, double arrival) {
  require(packet.size() > 12 && packet.size() <= 1472, "RTP packet of a wrong size");
  if (packet.size() <= 12) {
    return;
  }
  bool const marker = (packet[1] & 0x80) != 0;
  auto const sequence = static_cast<std::uint16_t>(numberAt(packet, 2, 2));
  auto const timestamp = numberAt(packet, 4, 4);
  auto const ssrc = numberAt(packet, 8, 4);
  require(packet[0] == 0x80, "RTP header is not version 2 and plain");
  require((packet[1] & 0x7F) == (m_Codec == 8 ? 26 : 96), "wrong payload type");
  if (m_Packets > 0) {
    require(sequence == static_cast<std::uint16_t>(m_Sequence + 1), "gap in the sequence");
    require(ssrc == m_Ssrc, "another SSRC");
    require((timestamp == m_Timestamp) != m_FrameEnded, "time stamp and marker bit disagree");
  }
  payload(packet.subspan(12), marker);
  if (m_Codec != 8 && m_Packets > 0 && sequence != static_cast<std::uint16_t>(m_Sequence + 1)) {
    require(m_NalTypes.back() == 7, "a frame that builds on a lost one");
  }
  if (m_FrameEnded) {
    checkClock(timestamp, arrival);
  }
  m_FrameEnded = marker;
  m_Markers += marker ? 1 : 0;
  m_Sequence = sequence;
  m_Timestamp = timestamp;
  m_Ssrc = ssrc;
  ++m_Packets;
}

void RtpChecker::payload(std::span<std::uint8_t const> payload, bool marker) {
  if (m_Codec == 8) {
    jpeg(payload, marker);
  } else {
    h264(payload, marker);
  }
}

void RtpChecker::h264(std::span<std::uint8_t const> payload, bool marker) {
  int const type = payload[0] & 0x1F;
  require(!holdsStartCode(payload), "start code in a payload");
  require((payload[0] & 0x80) == 0, "forbidden bit set");
  if (type == 28 && payload.size() > 2) {
    bool const start = (payload[1] & 0x80) != 0;
    bool const end = (payload[1] & 0x40) != 0;
    int const inner = payload[1] & 0x1F;
    require(start == (m_FragmentedType == 0), "fragment without a start, or a second start");
    require(start || inner == m_FragmentedType, "fragments of different types");
    require(!(start && end), "a single fragment");
    require(!marker || end, "marker bit inside a NAL unit");
    if (start) {
      m_NalTypes.push_back(inner);
    }
    m_FragmentedType = end ? 0 : inner;
    return;
  }
  require(m_FragmentedType == 0, "fragments without an end");
  require(type >= 1 && type <= 23, "unexpected packet type");
  require(!marker || (type != 7 && type != 8), "marker bit on a parameter set");
  m_NalTypes.push_back(type);
}

void RtpChecker::jpeg(std::span<std::uint8_t const> payload, bool marker) {
  require(payload.size() > 8, "JPEG header is cut");
  if (payload.size() <= 8) {
    return;
  }
  require(numberAt(payload, 1, 3) == m_JpegOffset, "fragment offset does not follow");
  require(payload[4] == 1 && payload[5] == 195, "wrong type or Q");
  require(payload[6] > 0 && payload[7] > 0, "no size");
  std::size_t header = 8;
  if (m_JpegOffset == 0) {
    require(payload.size() > 8 + 4 + 128 && numberAt(payload, 10, 2) == 128, "no quantization tables");
    header += 4 + 128;
  }
  m_JpegOffset += static_cast<std::uint32_t>(payload.size() - std::min(payload.size(), header));
  if (marker) {
    require(payload[payload.size() - 2] == 0xFF && payload.back() == 0xD9, "the image does not end with its marker");
    m_JpegOffset = 0;
  }
}

void RtpChecker::checkClock(std::uint32_t timestamp, double arrival) {
  if (m_Clock) {
    double const wall = m_Clock->wall + static_cast<std::int32_t>(timestamp - m_Clock->rtp) / 90000.0;
    require(wall <= arrival + 0.002, "a frame from the future, by the sender report's clock");
    require(wall > arrival - 10, "a frame from long ago, by the sender report's clock");
  }
}

void RtpChecker::rtcp(std::span<std::uint8_t const> packet) {
  bool first = true;
  bool cname = false;
  while (packet.size() >= 4) {
    std::size_t const size = (numberAt(packet, 2, 2) + 1) * 4;
    if (size > packet.size()) {
      break;
    }
    int const type = packet[1];
    require(packet[0] >> 6 == 2, "RTCP is not version 2");
    require(!first || type == 200 || type == 201, "RTCP does not begin with a report");
    if (type == 200) {
      senderReport(packet.first(size));
    }
    cname = cname || (type == 202 && packet.size() > 8 && packet[8] == 1);
    first = false;
    packet = packet.subspan(size);
  }
  require(packet.empty(), "RTCP lengths do not add up");
  require(cname, "RTCP without a CNAME");
}

void RtpChecker::senderReport(std::span<std::uint8_t const> report) {
  ++m_SenderReports;
  require(report.size() >= 28, "sender report is cut");
  require(m_Packets == 0 || numberAt(report, 4, 4) == m_Ssrc, "sender report of another SSRC");
  double const wall = numberAt(report, 8, 4) - 2208988800.0 + numberAt(report, 12, 4) / 4294967296.0;
  Clock const now{wall, numberAt(report, 16, 4)};
  if (m_Clock) {
    double const expected = m_Clock->wall + static_cast<std::int32_t>(now.rtp - m_Clock->rtp) / 90000.0;
    require(std::abs(expected - wall) <= 0.002, "the clocks of two sender reports differ");
  }
  m_Clock = now;
}
