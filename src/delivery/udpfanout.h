// Sends a stream's frames over UDP. One system call sends a frame to all viewers whose paths
// have room for it; a path that does not gets the rest at its own pace, without delaying the
// others. Event-loop thread.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "delivery/pacer.h"
#include "delivery/transport.h"
#include "delivery/udpports.h"
#include "delivery/udpsender.h"
#include "eventloop/loophandles.h"
#include "operate/descriptors.h"

namespace kavo::impl {

// A frame that is being sent to the viewers at one address.
struct PacedFrame {
  FramePtr frame;  // null: none
  std::vector<UdpTransport*> recipients;
  std::size_t next = 0;       // the next packet
  std::size_t recipient = 0;  // the first recipient that packet has not been sent to

  bool isDone() const { return recipients.empty() || next == frame->packets.count(); }
  void advance(std::size_t packets, std::size_t toRecipients);
  bool remove(UdpTransport const& to);
  // Keeps the list's capacity.
  void clear();
};

// One stream's path to one address, with the frames on their way there.
struct UdpPath {
  std::shared_ptr<Pacer::Path> pace;
  PacedFrame current;
  // The newest frame, while another is being sent.
  PacedFrame waiting;
  bool hasReplaced = false;  // the waiting frame replaced another
  std::chrono::steady_clock::time_point due{};
};

class UdpFanout : NonCopyable {
 public:
  using Clock = std::chrono::steady_clock;

  class Owner {
   public:
    // A packet exceeded the viewer's path MTU, so the viewer lost the frame.
    virtual void exceedsMtu(UdpTransport& transport) KAVO_REQUIRES(eventLoopRole) = 0;
    // Frames were lost because memory ran out.
    virtual void failed() KAVO_REQUIRES(eventLoopRole) = 0;

   protected:
    ~Owner() = default;
  };

  // Sends from the local address if it is not empty.
  UdpFanout(TaskScheduler& scheduler, std::shared_ptr<Pacer> pacer, std::shared_ptr<DescriptorBudget> descriptors,
            std::string address, Owner& owner);

  // Opens the family's sockets if they are not open yet; onReport is called when RTCP or an
  // error arrives on one. False if no sockets are available.
  bool open(int family, std::function<void(int socket)> onReport) KAVO_REQUIRES(eventLoopRole);
  UdpPorts const& ports(int family) const KAVO_REQUIRES(eventLoopRole) { return m_Families[indexOf(family)]->ports; }
  void close() KAVO_REQUIRES(eventLoopRole);

  // Viewers at the same address share a path.
  std::shared_ptr<UdpPath> pathTo(sockaddr_storage const& address) KAVO_REQUIRES(eventLoopRole);

  // See Transport::send(). While a frame is being sent, the newest one waits: a key frame
  // replaces a waiting frame, any other frame is refused.
  Transport::Outcome add(UdpTransport& to, FramePtr const& frame, Clock::time_point now) KAVO_REQUIRES(eventLoopRole);
  // Sends what may be sent now and schedules the rest.
  void flush() KAVO_REQUIRES(eventLoopRole);
  void cancel(UdpTransport& to) KAVO_REQUIRES(eventLoopRole);
  void cancelAll() KAVO_REQUIRES(eventLoopRole);

 private:
  struct Family {
    DescriptorBudget::Share descriptors;
    UdpPorts ports;
    SocketWatch rtcp;
  };
  // What may be sent on a path now: packets to all recipients, or one packet to some.
  struct Burst {
    UdpPath* path;
    Frame* frame;
    int family;
    std::size_t first;
    std::size_t last;
    std::size_t bytes = 0;  // to each recipient
    std::size_t recipients = 0;

    bool leavesWith(Burst const& other) const {
      return frame == other.frame && first == other.first && last == other.last && family == other.family;
    }
    bool operator<(Burst const& other) const;
  };

  static std::size_t indexOf(int family) { return family == AF_INET6 ? 1 : 0; }
  static Burst burstOn(UdpPath& path, Clock::time_point now) KAVO_REQUIRES(eventLoopRole);
  static void advance(Burst const& burst, Clock::time_point now) KAVO_REQUIRES(eventLoopRole);

  void send(std::span<Burst const> bursts) KAVO_REQUIRES(eventLoopRole);
  void endExceeding() KAVO_REQUIRES(eventLoopRole);
  void schedule() KAVO_REQUIRES(eventLoopRole);

  TaskScheduler& m_Scheduler;
  std::shared_ptr<Pacer> const m_Pacer;
  std::shared_ptr<DescriptorBudget> const m_Descriptors;
  std::string const m_Address;
  Owner& m_Owner;
  // IPv4 and IPv6.
  std::array<std::unique_ptr<Family>, 2> m_Families KAVO_GUARDED_BY(eventLoopRole);
  std::vector<std::weak_ptr<UdpPath>> m_Paths KAVO_GUARDED_BY(eventLoopRole);
  std::vector<UdpPath*> m_Busy KAVO_GUARDED_BY(eventLoopRole);  // with a current frame
  Timer m_NextBurst KAVO_GUARDED_BY(eventLoopRole);
  UdpSender m_Sender KAVO_GUARDED_BY(eventLoopRole);
  // Scratch space of flush().
  std::vector<Burst> m_Bursts KAVO_GUARDED_BY(eventLoopRole);
  std::vector<UdpDestination*> m_Destinations KAVO_GUARDED_BY(eventLoopRole);
  std::vector<UdpTransport*> m_Exceeding KAVO_GUARDED_BY(eventLoopRole);
};

}  // namespace kavo::impl
