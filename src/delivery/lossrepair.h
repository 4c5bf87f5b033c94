// When a viewer that loses packets is to have a key frame: it sees damage until the next
// one. Event-loop thread.
#pragma once

#include <chrono>
#include <cstdint>

#include "rtp/rtcp.h"

namespace kavo::impl {

class LossRepair {
 public:
  using Clock = std::chrono::steady_clock;

  // The viewer has reported; over TCP it loses nothing, whatever it says.
  void noteReport(ReceiverReport const& report, bool overUdp);
  // A key frame that begins with this packet is on its way to it.
  void noteKeyFrame(std::uint16_t sequence, Clock::time_point now);
  // True when it is to have one now; the next must wait then. One that loses all the time
  // gets few of them: they cost all viewers' quality, and it would lose them too.
  bool take(Clock::time_point now);

 private:
  void noteBlock(ReportBlock const& block);

  bool m_Needed = false;
  std::uint16_t m_KeyFrame = 0;
  Clock::time_point m_LastKeyFrame{};
  Clock::time_point m_LastAsked{};
  // What its last report said.
  bool m_HasReported = false;
  std::uint32_t m_HighestSequence = 0;
  std::int32_t m_PacketsLost = 0;
  // Of the last few hundred packets.
  double m_RecentPackets = 0;
  double m_RecentLost = 0;
};

}  // namespace kavo::impl
