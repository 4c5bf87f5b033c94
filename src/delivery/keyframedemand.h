// Decides when one viewer requests a key frame: after it reported damage, or was too slow
// for a frame. Key frames reduce every viewer's quality, so a viewer that requests them
// constantly gets few. Event-loop thread.
#pragma once

#include <chrono>
#include <cstdint>

#include "rtp/rtcp.h"

namespace kavo::impl {

class KeyFrameDemand {
 public:
  using Clock = std::chrono::steady_clock;

  // The viewer has sent a report. Over TCP it cannot lose packets, whatever it reports.
  void reported(ReceiverReport const& report, bool overUdp);
  // The viewer was too slow for a frame.
  void fellBehind() { m_IsNeeded = m_IsBehind = true; }
  // A key frame, starting with this sequence number, is on its way to the viewer.
  void keyFrameSent(std::uint16_t sequence, Clock::time_point now);
  // Whether it requests a key frame now. If so, the next request has to wait for half a
  // second, or for two if the viewer was too slow, keeps losing packets or has made three
  // requests in a row.
  bool take(Clock::time_point now);

 private:
  void blockReported(ReportBlock const& block);
  bool isLossy() const;

  bool m_IsNeeded = false;
  bool m_IsBehind = false;
  std::uint16_t m_KeyFrame = 0;
  Clock::time_point m_LastKeyFrame{};
  Clock::time_point m_LastAsked{};
  int m_AskedInARow = 0;
  // From its last report.
  bool m_HasReported = false;
  std::uint32_t m_HighestSequence = 0;
  std::int32_t m_PacketsLost = 0;
  // Among the last few hundred packets.
  double m_RecentPackets = 0;
  double m_RecentLost = 0;
};

}  // namespace kavo::impl
