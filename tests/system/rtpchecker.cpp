#include "system/rtpchecker.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace {

using reassembly::numberAt;

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
  m_BehindGap = m_BehindGap || (m_Packets > 0 && sequence != static_cast<std::uint16_t>(m_Sequence + 1));
  m_Payloads.emplace_back(packet.begin() + 12, packet.end());
  if (marker) {
    std::size_t const before = m_NalTypes.size();
    frame();
    require(m_Codec == 8 || !m_BehindGap || m_NalTypes.at(before) == 7, "a frame that builds on a lost one");
    m_BehindGap = false;
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

// Reassembles and checks a frame once all its payloads have arrived.
void RtpChecker::frame() {
  try {
    if (m_Codec == 8) {
      auto const image = reassembly::jpegOf(m_Payloads);
      require(image.header[0] == 1 && image.header[1] == 195, "wrong type or Q");
      require(image.header[2] > 0 && image.header[3] > 0, "no size");
      require(image.tables.size() == 128, "no quantization tables");
      require(std::equal(image.scan.end() - 2, image.scan.end(), "\xFF\xD9",
                         [](auto a, char b) { return a == std::uint8_t(b); }),
              "the image does not end with its marker");
    } else {
      for (auto const& unit : reassembly::nalUnitsOf(m_Payloads)) {
        require(!holdsStartCode(unit), "start code in a NAL unit");
        require((unit[0] & 0x80) == 0, "forbidden bit set");
        m_NalTypes.push_back(unit[0] & 0x1F);
      }
      require(m_NalTypes.back() >= 1 && m_NalTypes.back() <= 5, "a frame that does not end with a slice");
    }
  } catch (std::runtime_error const& error) {
    require(false, error.what());
  }
  m_Payloads.clear();
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
