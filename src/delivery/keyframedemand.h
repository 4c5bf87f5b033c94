// When a viewer asks for a key frame: because it reports damage, or because it was too slow
// for a frame. Key frames cost all viewers' quality, so a viewer that asks all the time
// gets few of them. Event-loop thread.
#pragma once

#include <chrono>
#include <cstdint>

#include "rtp/rtcp.h"

namespace kavo::impl {

class KeyFrameDemand {
 public:
  using Clock = std::chrono::steady_clock;

  // The viewer has reported; over TCP it loses nothing, whatever it says.
  void reported(ReceiverReport const& report, bool overUdp);
  // It was too slow.
  void fellBehind() { m_IsNeeded = m_IsBehind = true; }
  // A key frame that begins with this packet is on its way to it.
  void keyFrameSent(std::uint16_t sequence, Clock::time_point now);
  // True when it asks for one now; the next must wait then: half a second, or two seconds
  // where it was too slow, loses all the time or has asked three times in a row.
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
  // What its last report said.
  bool m_HasReported = false;
  std::uint32_t m_HighestSequence = 0;
  std::int32_t m_PacketsLost = 0;
  // Of the last few hundred packets.
  double m_RecentPackets = 0;
  double m_RecentLost = 0;
};

}  // namespace kavo::impl
