// Checks a stream of packets against RFC 3550, RFC 6184 (H.264) and RFC 2435 (JPEG).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "rtp/reassembly.h"

class RtpChecker {
 public:
  explicit RtpChecker(int codec) : m_Codec(codec) {}

  // Checks a packet; arrival is the wall clock in seconds since 1970.
  void rtp(std::span<std::uint8_t const> packet, double arrival);
  void rtcp(std::span<std::uint8_t const> packet);

  // All deviations, one line each.
  std::vector<std::string> const& complaints() const { return m_Complaints; }
  int frames() const { return m_Markers; }
  // The time stamp of the last packet.
  std::uint32_t timestamp() const { return m_Timestamp; }
  int senderReports() const { return m_SenderReports; }
  // The types of all H.264 NAL units so far, in order.
  std::vector<int> const& nalTypes() const { return m_NalTypes; }

 private:
  void require(bool condition, char const* what);
  void frame();
  void checkClock(std::uint32_t timestamp, double arrival);
  void senderReport(std::span<std::uint8_t const> report);

  struct Clock {
    double wall;
    std::uint32_t rtp;
  };

  int m_Codec;
  std::vector<std::string> m_Complaints;
  int m_Packets = 0;
  int m_Markers = 0;
  int m_SenderReports = 0;
  std::uint16_t m_Sequence = 0;
  std::uint32_t m_Ssrc = 0;
  std::uint32_t m_Timestamp = 0;
  bool m_FrameEnded = true;
  bool m_BehindGap = false;
  std::vector<reassembly::Bytes> m_Payloads;  // of an incomplete frame
  std::vector<int> m_NalTypes;
  std::optional<Clock> m_Clock;
};
