#include "delivery/keyframedemand.h"

namespace kavo::impl {

namespace {

using namespace std::chrono_literals;

constexpr KeyFrameDemand::Clock::duration shortInterval = 500ms;
constexpr KeyFrameDemand::Clock::duration longInterval = 2s;
constexpr int fewInARow = 3;
constexpr double lossyShare = 0.1;
constexpr double recentPackets = 400;
// Below this number, a few lost packets are not significant.
constexpr double fewPackets = 50;

}  // namespace

void KeyFrameDemand::reported(ReceiverReport const& report, bool overUdp) {
  m_IsNeeded = m_IsNeeded || report.wantsKeyFrame;
  if (overUdp && report.block) {
    blockReported(*report.block);
  }
}

void KeyFrameDemand::blockReported(ReportBlock const& block) {
  std::int32_t const lost = block.packetsLost - m_PacketsLost;
  // Losses before the last key frame do no more harm.
  bool const isAfterKeyFrame =
      m_LastKeyFrame == Clock::time_point{} ||
      static_cast<std::int16_t>(static_cast<std::uint16_t>(block.highestSequence) - m_KeyFrame) >= 0;
  m_IsNeeded = m_IsNeeded || (lost > 0 && isAfterKeyFrame);
  std::uint32_t const packets = block.highestSequence - m_HighestSequence;
  if (m_HasReported && lost >= 0 && packets <= 0xFFFF) {  // unless the receiver has restarted
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

void KeyFrameDemand::keyFrameSent(std::uint16_t sequence, Clock::time_point now) {
  m_IsNeeded = m_IsBehind = false;
  m_KeyFrame = sequence;
  m_LastKeyFrame = now;
}

bool KeyFrameDemand::isLossy() const { return m_RecentLost > lossyShare * (m_RecentPackets + fewPackets); }

bool KeyFrameDemand::take(Clock::time_point now) {
  auto const since = now - m_LastAsked;
  bool const isOften = m_IsBehind || m_AskedInARow >= fewInARow;
  if (!m_IsNeeded || since < (isOften ? longInterval : shortInterval) ||
      (isLossy() && now - m_LastKeyFrame < longInterval)) {
    return false;
  }
  m_AskedInARow = since < 2 * longInterval ? m_AskedInARow + 1 : 1;
  m_LastAsked = now;
  return true;
}

}  // namespace kavo::impl
