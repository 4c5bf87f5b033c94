#include "delivery/viewers.h"

#include <algorithm>
#include <utility>

#include "delivery/interleavedtransport.h"
#include "delivery/udptransport.h"
#include "eventloop/contained.h"

namespace kavo::impl {

Viewers::Viewers(TaskScheduler& scheduler, DeliveryContext const& context, Stream& stream, StreamObserver& observer)
    : m_Policy(context.policy),
      m_Stream(stream),
      m_Observer(observer),
      m_Udp(scheduler, context.pacer, context.descriptors, context.policy.address, *this),
      m_Reporter(scheduler, stream, m_Viewers) {}

Viewer* Viewers::addUdp(sockaddr_storage const& address, std::uint16_t rtpPort, std::uint16_t rtcpPort) {
  auto const onReport = [this](int socket) KAVO_REQUIRES(eventLoopRole) { m_Reporter.receive(socket); };
  if (!m_Udp.open(address.ss_family, onReport)) {
    return nullptr;
  }
  auto transport = std::make_unique<UdpTransport>(m_Udp, address, rtpPort, rtcpPort);
  auto const to = transport->address();
  Viewer& viewer = add(std::move(transport));
  viewer.observer().setAddress(to);
  return &viewer;
}

Viewer* Viewers::addInterleaved(std::uint8_t rtpChannel, std::uint8_t rtcpChannel) {
  return &add(std::make_unique<InterleavedTransport>(rtpChannel, rtcpChannel));
}

Viewer& Viewers::add(std::unique_ptr<Transport> transport) {
  return *m_Viewers.emplace_back(std::make_unique<Viewer>(*this, std::move(transport), m_Observer));
}

void Viewers::remove(Viewer& viewer) {
  viewer.observer().left(viewer.departure());
  viewer.transport().cancel();
  std::erase_if(m_Viewers, [&](auto const& entry) { return entry.get() == &viewer; });
  fitPackets();
  if (m_Viewers.empty()) {
    m_Udp.close();
    m_Newest = nullptr;
    m_Reporter.stop();
  }
}

// A client that restarts with the same ports would otherwise get every packet twice
// until its old session times out.
void Viewers::takePortsFromOthers(Viewer const& viewer) {
  for (auto const& other : m_Viewers) {
    UdpTransport const* const udp = other->transport().udp();
    if (other.get() != &viewer && udp != nullptr && udp->hasPortsOf(*viewer.transport().udp())) {
      pause(*other);
    }
  }
}

Frame const* Viewers::play(Viewer& viewer) {
  if (!viewer.play()) {
    return viewer.firstFrame();
  }
  if (UdpTransport* const udp = viewer.transport().udp()) {
    takePortsFromOthers(viewer);
    udp->measureMaxPacket(m_Policy.maxPacket);
    viewer.observer().setMaxPacket(udp->maxPacket());
    fitPackets();
  }
  FramePtr first = canBeginWithNewest(viewer) ? m_Newest : nullptr;
  // Other viewers may get frames before the key frame that this one waits for.
  viewer.setSequenceKnown(first || m_Stream.hasKeyFramesOnly() || m_LastSent == Clock::time_point{});
  if (!first) {
    m_Stream.wantKeyFrame(true);  // now, so that the next submitted frame is one
  }
  viewer.setFirstFrame(std::move(first));
  return viewer.firstFrame();
}

// Not if the viewer may have seen it before pausing, if something is still queued for it, or
// if the packets exceed its path MTU.
bool Viewers::canBeginWithNewest(Viewer const& viewer) const {
  UdpTransport const* const udp = viewer.transport().udp();
  return m_Newest != nullptr && !viewer.hasPlayed() && !viewer.transport().isBusy() &&
         Clock::now() - m_LastSent <= m_Stream.freshness() &&
         (udp == nullptr || m_Newest->packets.largest() <= udp->maxPacket());
}

void Viewers::begin(Viewer& viewer) {
  if (viewer.state() != Viewer::State::Joining) {
    return;
  }
  m_Reporter.start(viewer);
  auto const sendFirst = [&, first = viewer.takeFirstFrame()]() KAVO_REQUIRES(eventLoopRole) {
    if (first) {
      viewer.send(first, Clock::now());
      m_Udp.flush();
    }
  };
  if (!contained(sendFirst)) {
    failed();
  }
}

void Viewers::pause(Viewer& viewer) {
  viewer.pause();
  fitPackets();
}

bool Viewers::anyActive() const { return takes(true); }

bool Viewers::takes(bool keyFrame) const {
  return std::ranges::any_of(m_Viewers, [=](auto const& viewer) { return viewer->takes(keyFrame); });
}

void Viewers::fitPackets() {
  m_MaxPacket = m_Policy.maxPacket;
  for (auto const& viewer : m_Viewers) {
    if (UdpTransport const* const udp = viewer->transport().udp(); udp != nullptr && viewer->isActive()) {
      m_MaxPacket = std::min(m_MaxPacket, udp->maxPacket());
    }
  }
}

void Viewers::send(FramePtr const& frame) {
  auto const now = Clock::now();
  bool isKeyFrameWanted = false;
  std::size_t receivers = 0;
  for (auto const& viewer : m_Viewers) {
    auto const [isSent, wantsKeyFrame] = viewer->send(frame, now);
    receivers += isSent ? 1 : 0;
    isKeyFrameWanted = isKeyFrameWanted || wantsKeyFrame;
  }
  m_Newest = frame->isKeyFrame ? frame : nullptr;
  m_LastSent = now;
  m_Observer.add(Count::SentFrames, receivers > 0 ? 1 : 0);
  m_Observer.add(Count::SentBytes, frame->packets.bytes() * receivers);
  if (frame->isKeyFrame || isKeyFrameWanted) {
    m_Stream.wantKeyFrame(isKeyFrameWanted);
  }
  m_Udp.flush();
}

void Viewers::forgetFrames() {
  m_Udp.cancelAll();
  m_Newest = nullptr;
  m_LastSent = {};
}

void Viewers::failed() {
  eventLoopRole.assertHeld();
  m_Udp.cancelAll();
  m_Newest = nullptr;
  for (auto const& viewer : m_Viewers) {
    if (viewer->state() == Viewer::State::Playing) {
      viewer->awaitKeyFrame();
    }
  }
  m_Stream.wantKeyFrame(true);
}

// The viewer lost this frame, so frames that reference it would be damaged.
void Viewers::exceedsMtu(UdpTransport& transport) {
  eventLoopRole.assertHeld();
  transport.reduceMaxPacket(m_Policy.maxPacket);
  auto const viewer =
      std::ranges::find_if(m_Viewers, [&](auto const& entry) { return &entry->transport() == &transport; });
  (*viewer)->observer().pathNarrowed(transport.maxPacket());
  (*viewer)->awaitKeyFrame();
  fitPackets();
  m_Stream.wantKeyFrame(true);
}

}  // namespace kavo::impl
