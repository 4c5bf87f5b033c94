#include "delivery/lossrepair.h"

namespace kavo::impl {

namespace {

using namespace std::chrono_literals;

constexpr LossRepair::Clock::duration shortestInterval = 500ms;
// From one key frame to the next, regular ones too.
constexpr LossRepair::Clock::duration lossyInterval = 2s;
constexpr double lossyShare = 0.1;
constexpr double recentPackets = 400;
// Until so many came, a few lost ones tell nothing.
constexpr double fewPackets = 50;

}  // namespace

void LossRepair::noteReport(ReceiverReport const& report, bool overUdp) {
  m_Needed = m_Needed || report.wantsKeyFrame;
  if (overUdp && report.block) {
    noteBlock(*report.block);
  }
}

void LossRepair::noteBlock(ReportBlock const& block) {
  std::int32_t const lost = block.packetsLost - m_PacketsLost;
  // What was lost before the last key frame does no harm any more.
  bool const isAfterKeyFrame =
      m_LastKeyFrame == Clock::time_point{} ||
      static_cast<std::int16_t>(static_cast<std::uint16_t>(block.highestSequence) - m_KeyFrame) >= 0;
  m_Needed = m_Needed || (lost > 0 && isAfterKeyFrame);
  std::uint32_t const packets = block.highestSequence - m_HighestSequence;
  if (m_HasReported && lost >= 0 && packets <= 0xFFFF) {  // not from a receiver that has begun anew
    m_RecentPackets += packets;
    m_RecentLost += lost;
    if (m_RecentPackets > recentPackets) {
      m_RecentPackets /= 2;
      m_RecentLost /= 2;
    }
  }
  m_HasReported = true;
  m_HighestSequence = block.highestSequence;
  m_PacketsLost = block.packetsLost;
}

void LossRepair::noteKeyFrame(std::uint16_t sequence, Clock::time_point now) {
  m_Needed = false;
  m_KeyFrame = sequence;
  m_LastKeyFrame = now;
}

bool LossRepair::take(Clock::time_point now) {
  bool const isLossy = m_RecentLost > lossyShare * (m_RecentPackets + fewPackets);
  if (!m_Needed || now - m_LastAsked < shortestInterval || (isLossy && now - m_LastKeyFrame < lossyInterval)) {
    return false;
  }
  m_LastAsked = now;
  return true;
}

}  // namespace kavo::impl
