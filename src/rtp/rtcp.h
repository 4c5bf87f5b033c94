// Makes RTCP sender reports and reads receiver reports (RFC 3550, 6). Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace kavo::impl {

// One moment on the wall clock and in RTP time, and what was sent until then.
struct SenderInfo {
  std::uint32_t ssrc;
  std::uint64_t ntpTime;  // seconds since 1900 in the upper, their fraction in the lower half
  std::uint32_t rtpTime;
  std::uint32_t packets;
  std::uint32_t octets;  // of payload
};

// A compound packet: sender report, CNAME (shorter than 256 bytes) and, at the end of a stream, BYE.
std::vector<std::uint8_t> makeSenderReport(SenderInfo const& info, std::string_view cname, bool bye);

// A receiver's report block about one sender (RFC 3550, 6.4.1).
struct ReportBlock {
  std::uint8_t fractionLost = 0;        // since its last report, in 1/256
  std::int32_t packetsLost = 0;         // since it began
  std::uint32_t highestSequence = 0;    // extended
  std::uint32_t jitter = 0;             // in units of RTP time
  std::uint32_t lastSenderReport = 0;   // the middle 32 bits of its NTP time; 0: none was received
  std::uint32_t sinceSenderReport = 0;  // in 1/65536 s
};

struct ReceiverReport {
  std::optional<ReportBlock> block;  // the one about this sender, if any
  bool wantsKeyFrame = false;        // picture loss (RFC 4585, 6.3.1) or full intra request (RFC 5104, 4.3.1)
};

// nullopt unless the packet is RTCP that begins with a report.
std::optional<ReceiverReport> readReceiverReport(std::span<std::uint8_t const> packet, std::uint32_t ssrc);

}  // namespace kavo::impl
