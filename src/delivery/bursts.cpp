// The UDP part of Viewers: a frame leaves in bursts that the paths of its viewers take.
#include <algorithm>
#include <utility>

#include "delivery/pathmtu.h"
#include "delivery/viewers.h"
#include "eventloop/contained.h"

namespace kavo::impl {

namespace {

// What is worth a system call for every viewer.
constexpr std::size_t smallestBurst = 16384;
constexpr std::chrono::microseconds shortestFrameInterval{10000};
constexpr std::chrono::microseconds longestFrameInterval{200000};

}  // namespace

void Viewers::noteInterval() {
  auto const now = Clock::now();
  if (m_FrameBegin != Clock::time_point{}) {
    auto const since = std::chrono::duration_cast<std::chrono::microseconds>(now - m_FrameBegin);
    m_FrameInterval = (3 * m_FrameInterval + std::clamp(since, shortestFrameInterval, longestFrameInterval)) / 4;
  }
  m_FrameBegin = now;
}

// True when nothing is left of the frame.
bool Viewers::beginFrame(FramePackets& packets, std::span<Viewer* const> takers) {
  auto const now = Clock::now();
  m_Packets = &packets;
  m_NextPacket = 0;
  m_BytesSent = 0;
  for (Viewer* const viewer : takers) {
    m_Families[indexOf(viewer->m_Udp.address.ss_family)]->takers.push_back(viewer);
    addShare(*viewer->m_Path);
    viewer->noteSent(packets.bytes());
  }
  bool const paced = isPaced();
  for (Share& share : m_Shares) {
    share.need = paced ? share.path->needOf(m_Packets->bytes() * share.viewers, m_FrameInterval) : 0;
    share.path->addNeed(share.need, now);
  }
  return sendBurst();
}

// The frame that was sent while the one before it went to somebody who had just joined.
bool Viewers::beginFollowing() {
  m_Playing.clear();
  for (auto const& viewer : m_Viewers) {
    if (viewer->isOverUdp() && viewer->m_State == Viewer::State::Playing) {
      m_Playing.push_back(viewer.get());
    }
  }
  return beginFrame(*std::exchange(m_Following, nullptr), m_Playing);
}

void Viewers::continueFrame() {
  bool const done = contained([this]() KAVO_REQUIRES(eventLoopRole) {
    if (sendBurst() && m_Following != nullptr) {
      beginFollowing();
    }
  });
  if (!done) {
    abandonFrame();
  }
  if (m_Packets == nullptr && std::exchange(m_SinkWaits, false)) {
    m_Callbacks.frameSent();
  }
}

void Viewers::addShare(Pacer::Path& path) {
  auto const share =
      std::find_if(m_Shares.begin(), m_Shares.end(), [&](auto const& entry) { return entry.path == &path; });
  if (share != m_Shares.end()) {
    ++share->viewers;
  } else {
    m_Shares.push_back({&path, 1, 0});
  }
}

void Viewers::leaveShare(Pacer::Path& path) {
  auto const share =
      std::find_if(m_Shares.begin(), m_Shares.end(), [&](auto const& entry) { return entry.path == &path; });
  if (share != m_Shares.end() && --share->viewers == 0) {
    path.addNeed(-share->need, Clock::now());
    m_Shares.erase(share);
  }
}

bool Viewers::isPaced() const {
  auto const isTooMuch = [bytes = m_Packets->bytes()](Share const& share) { return !share.path->takesAtOnce(bytes); };
  return !m_Delivery.pacer->isOff() && std::any_of(m_Shares.begin(), m_Shares.end(), isTooMuch);
}

// All of a large frame at once would overflow the buffers along the path: what may
// leave now is what the slowest path takes.
std::size_t Viewers::allowance(Clock::time_point now) const {
  std::size_t room = m_Packets->bytes() - m_BytesSent;
  if (isPaced()) {
    for (Share const& share : m_Shares) {
      std::size_t const each = share.path->room(now) / share.viewers;
      // Of many viewers behind one address each gets a packet at a time.
      room = std::min(room, share.path->isIdle(now) ? std::max(each, m_Packets->size(m_NextPacket)) : each);
    }
  }
  return room;
}

std::chrono::microseconds Viewers::untilNextBurst(Clock::time_point now) const {
  std::size_t const bytes = std::min(smallestBurst, m_Packets->bytes() - m_BytesSent);
  std::chrono::microseconds longest{100};
  for (Share const& share : m_Shares) {
    longest = std::max(longest, share.path->until(bytes * share.viewers, now));
  }
  return longest;
}

// True when nothing is left of the frame.
bool Viewers::sendBurst() {
  auto const now = Clock::now();
  std::size_t const first = m_NextPacket;
  std::size_t const before = m_BytesSent;
  std::size_t const end = before + allowance(now);
  while (m_NextPacket < m_Packets->count() && m_BytesSent + m_Packets->size(m_NextPacket) <= end) {
    m_BytesSent += m_Packets->size(m_NextPacket++);
  }
  bool takersLeft = false;
  for (auto const& family : m_Families) {
    if (family && !family->takers.empty()) {
      if (m_NextPacket > first) {
        sendOverUdp(*family, first, m_NextPacket);
      }
      takersLeft = takersLeft || !family->takers.empty();
    }
  }
  auto const sent = Clock::now();  // not before: what a pause of this thread held back is only now on its way
  for (Share const& share : m_Shares) {
    share.path->noteSent((m_BytesSent - before) * share.viewers, (m_NextPacket - first) * share.viewers, sent);
  }
  bool const done = !takersLeft || m_NextPacket == m_Packets->count();
  if (done) {
    endFrame();
  } else {
    m_NextBurst.start(untilNextBurst(sent));
  }
  return done;
}

void Viewers::endFrame() {
  if (m_Following == nullptr) {
    m_Newest = m_IsKeyFrame ? m_Packets : nullptr;
  }
  m_Packets = nullptr;
  m_NextBurst.stop();
  auto const now = Clock::now();
  for (Share const& share : m_Shares) {
    share.path->addNeed(-share.need, now);
  }
  m_Shares.clear();
  for (auto const& family : m_Families) {
    if (family) {
      family->takers.clear();
    }
  }
}

void Viewers::sendOverUdp(Family& family, std::size_t first, std::size_t last) {
  m_Destinations.clear();
  for (Viewer* const viewer : family.takers) {
    m_Destinations.push_back(&viewer->m_Udp);
  }
  m_Sender.send(family.ports.rtpSocket(), *m_Packets, first, last, m_Destinations);
  for (Viewer* const viewer : family.takers) {
    if (std::exchange(viewer->m_Udp.tooNarrow, false)) {
      narrow(*viewer);
    }
  }
  std::erase_if(family.takers, [](Viewer const* viewer)
                                   KAVO_REQUIRES(eventLoopRole) { return viewer->m_State != Viewer::State::Playing; });
}

// This viewer lost the frame, so frames that reference it would be damaged.
void Viewers::narrow(Viewer& viewer) {
  std::size_t const path = maxUdpPayload(viewer.m_Udp.address).value_or(m_Delivery.policy.maxPacket);
  std::size_t const smaller = path < viewer.m_MaxPacket ? path : viewer.m_MaxPacket * 3 / 4;
  viewer.m_MaxPacket = std::max(smaller, smallestPacket);
  viewer.enter(Viewer::State::AwaitingKeyFrame);
  viewer.noteEvent(KV_STATUS_NARROWED, std::to_string(viewer.m_MaxPacket) + " bytes");
  fitPackets();
  m_Callbacks.wantKeyFrame(true);
}

}  // namespace kavo::impl
