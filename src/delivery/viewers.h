// The viewers of a stream, and which frames each of them gets. Event-loop thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "delivery/interleavedwriter.h"
#include "delivery/pacer.h"
#include "delivery/reporter.h"
#include "delivery/stream.h"
#include "delivery/udpfanout.h"
#include "delivery/viewer.h"
#include "operate/descriptors.h"
#include "operate/policy.h"

namespace kavo::impl {

// Shared by all streams of a server.
struct DeliveryContext {
  Policy::Delivery policy;
  std::shared_ptr<DescriptorBudget> descriptors = std::make_shared<DescriptorBudget>();
  std::shared_ptr<Pacer> pacer = std::make_shared<Pacer>(policy.paceMbit);
};

class Viewers final : NonCopyable, UdpFanout::Owner {
 public:
  using Clock = Viewer::Clock;

  // The stream and its observer must outlive this object.
  Viewers(TaskScheduler& scheduler, DeliveryContext const& context, Stream& stream, StreamObserver& observer);

  // Adds a viewer over UDP; null if no sockets are available. Ports are in host byte order.
  Viewer* addUdp(sockaddr_storage const& address, std::uint16_t rtpPort, std::uint16_t rtcpPort)
      KAVO_REQUIRES(eventLoopRole);
  Viewer* addInterleaved(std::uint8_t rtpChannel, std::uint8_t rtcpChannel) KAVO_REQUIRES(eventLoopRole);
  void remove(Viewer& viewer) KAVO_REQUIRES(eventLoopRole);
  // The local RTP port of the address family, in host byte order.
  std::uint16_t serverPort(int family) const KAVO_REQUIRES(eventLoopRole) { return m_Udp.ports(family).port(); }

  // Returns the frame that the viewer starts with: the newest, if it is fresh and the viewer
  // can start with it; else null, and the viewer starts with the next key frame. Nothing is
  // sent before begin().
  Frame const* play(Viewer& viewer) KAVO_REQUIRES(eventLoopRole);
  // Call after the response to PLAY: sends the first report and the first frame.
  void begin(Viewer& viewer) KAVO_REQUIRES(eventLoopRole);
  void pause(Viewer& viewer) KAVO_REQUIRES(eventLoopRole);

  bool empty() const KAVO_REQUIRES(eventLoopRole) { return m_Viewers.empty(); }
  bool anyActive() const KAVO_REQUIRES(eventLoopRole);
  // The largest RTP packet that the paths of all active viewers carry, in bytes.
  std::size_t maxPacket() const KAVO_REQUIRES(eventLoopRole) { return m_MaxPacket; }
  // Whether any viewer would be sent such a frame.
  bool takes(bool keyFrame) const KAVO_REQUIRES(eventLoopRole);

  // Sends the frame to every viewer that wants it.
  void send(FramePtr const& frame) KAVO_REQUIRES(eventLoopRole);
  // The source has stopped: drops the newest frame and whatever is still being sent.
  void forgetFrames() KAVO_REQUIRES(eventLoopRole);
  // Frames were lost that later ones may reference: every viewer waits for a key frame.
  void failed() override;

  Reporter& reporter() KAVO_REQUIRES(eventLoopRole) { return m_Reporter; }

 private:
  Viewer& add(std::unique_ptr<Transport> transport) KAVO_REQUIRES(eventLoopRole);
  bool canBeginWithNewest(Viewer const& viewer) const KAVO_REQUIRES(eventLoopRole);
  void takePortsFromOthers(Viewer const& viewer) KAVO_REQUIRES(eventLoopRole);
  void fitPackets() KAVO_REQUIRES(eventLoopRole);
  void exceedsMtu(UdpTransport& transport) override;

  Policy::Delivery const m_Policy;
  Stream& m_Stream;
  StreamObserver& m_Observer;
  UdpFanout m_Udp KAVO_GUARDED_BY(eventLoopRole);
  std::vector<std::unique_ptr<Viewer>> m_Viewers KAVO_GUARDED_BY(eventLoopRole);
  Reporter m_Reporter KAVO_GUARDED_BY(eventLoopRole);
  std::size_t m_MaxPacket KAVO_GUARDED_BY(eventLoopRole) = m_Policy.maxPacket;
  FramePtr m_Newest KAVO_GUARDED_BY(eventLoopRole);  // if it is a key frame
  Clock::time_point m_LastSent KAVO_GUARDED_BY(eventLoopRole){};
};

}  // namespace kavo::impl
