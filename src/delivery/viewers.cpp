#include "delivery/viewers.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "delivery/address.h"
#include "delivery/pathmtu.h"
#include "eventloop/contained.h"

namespace kavo::impl {

Viewers::Viewers(TaskScheduler& scheduler, Delivery delivery, status::StreamPlace const& stream, Callbacks callbacks)
    : m_Scheduler(scheduler),
      m_Delivery(std::move(delivery)),
      m_Stream(stream),
      m_Callbacks(std::move(callbacks)),
      m_NextBurst(scheduler, [this]() KAVO_REQUIRES(eventLoopRole) { continueFrame(); }),
      m_Welcome(scheduler, [this]() KAVO_REQUIRES(eventLoopRole) { welcome(); }),
      m_NextReport(scheduler, [this]() KAVO_REQUIRES(eventLoopRole) { sendReports(); }) {
  char host[100] = {};
  gethostname(host, sizeof host - 1);
  m_Cname = host;
}

bool Viewers::openPorts(int family) {
  auto& place = m_Families[indexOf(family)];
  if (!place) {
    auto ports = UdpPorts::open(family, m_Delivery.policy.address);
    if (!ports) {
      return false;
    }
    int const rtcp = ports->rtcpSocket();
    auto const receive = [this, rtcp](int) KAVO_REQUIRES(eventLoopRole) { receiveReports(rtcp); };
    place = std::make_unique<Family>(m_Scheduler, std::move(*ports), receive);
    place->rtcp.start(SOCKET_READABLE);
  }
  return true;
}

Viewer* Viewers::addUdp(sockaddr_storage const& address, std::uint16_t rtpPort, std::uint16_t rtcpPort) {
  if (!openPorts(address.ss_family)) {
    return nullptr;
  }
  std::unique_ptr<Viewer> viewer(new Viewer(*this, KV_STATUS_UDP));
  viewer->m_Udp.address = viewer->m_RtcpAddress = address;
  portOf(viewer->m_Udp.address) = htons(rtpPort);
  viewer->m_Path = m_Delivery.pacer->pathTo(address);
  viewer->setAddress(viewer->m_Udp.address);
  portOf(viewer->m_RtcpAddress) = htons(rtcpPort);
  takePortsFromOthers(*viewer);
  return m_Viewers.emplace_back(std::move(viewer)).get();
}

Viewer* Viewers::addInterleaved(std::uint8_t rtpChannel, std::uint8_t rtcpChannel) {
  std::unique_ptr<Viewer> viewer(new Viewer(*this, KV_STATUS_TCP));
  viewer->m_RtpChannel = rtpChannel;
  viewer->m_RtcpChannel = rtcpChannel;
  return m_Viewers.emplace_back(std::move(viewer)).get();
}

void Viewers::remove(Viewer& viewer) {
  viewer.noteEvent(KV_STATUS_LEFT, viewer.m_WhyLeft);
  stopSending(viewer);
  std::erase_if(m_Viewers, [&](auto const& entry) { return entry.get() == &viewer; });
  fitPackets();
  if (m_Viewers.empty()) {
    m_InterleavedFrames.clear();
    m_Families[0].reset();
    m_Families[1].reset();
    m_Newest = nullptr;
    m_NextReport.stop();
  }
}

// A client that starts again with the same ports would get every packet twice
// until its old session times out.
void Viewers::takePortsFromOthers(Viewer const& viewer) {
  for (auto const& other : m_Viewers) {
    if (other.get() != &viewer && other->isActive() && isSameHost(other->m_Udp.address, viewer.m_Udp.address) &&
        portOf(other->m_Udp.address) == portOf(viewer.m_Udp.address)) {
      pause(*other);
    }
  }
}

FramePackets const* Viewers::play(Viewer& viewer) {
  if (viewer.isActive()) {
    return m_Welcome.isPending() && viewer.m_IsWelcome ? m_Newest : nullptr;
  }
  if (viewer.isOverUdp()) {
    takePortsFromOthers(viewer);
    viewer.m_MaxPacket = std::min<std::size_t>(
        m_Delivery.policy.maxPacket, maxUdpPayload(viewer.m_Udp.address).value_or(m_Delivery.policy.maxPacket));
  }
  viewer.enter(Viewer::State::AwaitingKeyFrame);
  viewer.noteEvent(KV_STATUS_JOINED, viewer.isOverUdp() ? "udp" : "tcp");
  fitPackets();
  viewer.m_IsWelcome = canBeginWithNewest(viewer);
  // The key frame that it waits for may come behind frames that it does not get.
  viewer.m_IsAnnounced = viewer.m_IsWelcome || !m_HasDeltaFrames || m_FrameBegin == Clock::time_point{};
  if (viewer.m_IsWelcome) {
    m_Welcome.start(std::chrono::microseconds(0));  // after the response, which is on its way
  } else {
    m_Callbacks.wantKeyFrame(true);
  }
  // Ahead of the first frame, so that receivers know its time.
  sendReport(viewer, makeReport(false));
  if (!m_NextReport.isPending()) {
    m_NextReport.start(reportInterval);
  }
  return viewer.m_IsWelcome ? m_Newest : nullptr;
}

// Not one that the viewer may have had before it paused; over UDP none while another is on
// its way, since the next comes as soon, and none in packets that its path does not take.
bool Viewers::canBeginWithNewest(Viewer const& viewer) const {
  if (m_Newest == nullptr || viewer.m_HasPlayed || Clock::now() - m_FrameBegin > m_Callbacks.freshness()) {
    return false;
  }
  return !viewer.isOverUdp() || (m_Packets == nullptr && m_Newest->largest() <= viewer.m_MaxPacket);
}

void Viewers::finishWelcome() {
  if (m_Welcome.isPending()) {
    m_Welcome.stop();
    contained([this]() KAVO_REQUIRES(eventLoopRole) { welcome(); });
  }
}

void Viewers::welcome() {
  FramePackets* const frame = m_Newest;
  auto& overUdp = m_Playing;
  overUdp.clear();
  for (auto const& viewer : m_Viewers) {
    // What PLAY announced holds, even if the next frame has made it old.
    bool const isWelcome = std::exchange(viewer->m_IsWelcome, false) && frame != nullptr;
    if (!isWelcome || viewer->m_State != Viewer::State::AwaitingKeyFrame) {
      continue;
    }
    viewer->enter(Viewer::State::Playing);
    if (viewer->isOverUdp()) {
      overUdp.push_back(viewer.get());
    } else if (viewer->m_Writer) {
      sendInterleaved(*viewer, *frame, true);
    }
  }
  if (frame == nullptr || overUdp.empty()) {
    return;
  }
  if (!contained([&]() KAVO_REQUIRES(eventLoopRole) { beginFrame(*frame, overUdp); })) {
    abandonFrame();
  }
}

void Viewers::forgetFrames() {
  drop();
  m_FrameBegin = {};
}

void Viewers::pause(Viewer& viewer) {
  if (viewer.isActive()) {
    viewer.enter(Viewer::State::Paused);
    viewer.noteEvent(KV_STATUS_PAUSE, "");
    stopSending(viewer);
    fitPackets();
  }
}

void Viewers::stopSending(Viewer& viewer) {
  if (viewer.m_Writer) {
    viewer.m_Writer->cancel(viewer.m_RtpChannel);
    viewer.m_Writer->cancel(viewer.m_RtcpChannel);
  }
  for (auto const& family : m_Families) {
    if (family && std::erase(family->takers, &viewer) > 0) {
      leaveShare(*viewer.m_Path);
    }
  }
}

bool Viewers::anyActive() const {
  return std::any_of(m_Viewers.begin(), m_Viewers.end(),
                     [](auto const& viewer) KAVO_REQUIRES(eventLoopRole) { return viewer->isActive(); });
}

void Viewers::fitPackets() {
  m_MaxPacket = m_Delivery.policy.maxPacket;
  for (auto const& viewer : m_Viewers) {
    if (viewer->isActive() && viewer->isOverUdp()) {
      m_MaxPacket = std::min(m_MaxPacket, viewer->m_MaxPacket);
    }
  }
}

bool Viewers::takes(bool keyFrame) const {
  return std::any_of(m_Viewers.begin(), m_Viewers.end(), [=](auto const& viewer) KAVO_REQUIRES(eventLoopRole) {
    return viewer->m_State == Viewer::State::Playing || (keyFrame && viewer->isActive());
  });
}

bool Viewers::send(FramePackets& packets, bool keyFrame) {
  auto const now = Clock::now();
  bool keyFrameWanted = false;
  m_HasDeltaFrames = m_HasDeltaFrames || !keyFrame;
  m_IsKeyFrame = keyFrame;
  for (InterleavedFrame& frame : m_InterleavedFrames) {
    frame.begin(packets);
  }
  for (auto const& viewer : m_Viewers) {
    if (keyFrame && viewer->m_State == Viewer::State::AwaitingKeyFrame) {
      viewer->enter(Viewer::State::Playing);
    }
    if (keyFrame) {
      viewer->m_Repair.noteKeyFrame(packets.header().sequence, now);
    }
    if (viewer->m_State == Viewer::State::AwaitingKeyFrame) {
      viewer->noteDropped(1);
    } else if (viewer->m_State == Viewer::State::Playing && viewer->m_Writer) {
      sendInterleaved(*viewer, packets, keyFrame);
    }
    // A key frame is large for everybody: a viewer over TCP asks when it can take one.
    keyFrameWanted = keyFrameWanted || (viewer->m_State == Viewer::State::AwaitingKeyFrame
                                            ? !(viewer->m_Writer && viewer->m_Writer->isBlocked())
                                            : needsRepair(*viewer, now));
  }
  m_Stream.add(&kv_status_stream::sent);
  if (keyFrame || keyFrameWanted) {
    m_Callbacks.wantKeyFrame(keyFrameWanted);
  }
  noteInterval();
  m_Following = &packets;
  m_SinkWaits = m_Packets != nullptr || !beginFollowing();
  return !m_SinkWaits;
}

void Viewers::sendInterleaved(Viewer& viewer, FramePackets& packets, bool keyFrame) {
  bool const accepted = viewer.m_Writer->sendFrame(frameOn(viewer.m_RtpChannel, packets), keyFrame);
  if (viewer.m_Writer->dropped() > 0) {
    viewer.noteDropped(viewer.m_Writer->dropped());
  }
  if (accepted) {
    viewer.noteSent(packets.bytes());
  } else {
    viewer.noteDropped(1);
    viewer.enter(Viewer::State::AwaitingKeyFrame);
  }
}

void Viewers::drop() {
  endFrame();
  m_Newest = m_Following = nullptr;
  m_SinkWaits = false;
}

void Viewers::abandonFrame() {
  drop();
  for (auto const& viewer : m_Viewers) {
    if (viewer->m_State == Viewer::State::Playing) {
      viewer->enter(Viewer::State::AwaitingKeyFrame);
    }
  }
  m_Callbacks.wantKeyFrame(true);
}

InterleavedFrame& Viewers::frameOn(std::uint8_t channel, FramePackets& packets) {
  auto const found = std::find_if(m_InterleavedFrames.begin(), m_InterleavedFrames.end(),
                                  [=](InterleavedFrame const& frame) { return frame.channel() == channel; });
  return found != m_InterleavedFrames.end() ? *found : m_InterleavedFrames.emplace_back(packets, channel);
}

}  // namespace kavo::impl
