// Sends a stream's frames over UDP. A frame goes in one system call to all viewers whose
// paths take it at once; a path that does not take it whole gets the rest at its own
// pace, and holds up no other. Event-loop thread.
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

// A frame that leaves packet by packet to some viewers at one address.
struct PacedFrame {
  FramePtr frame;  // null: none
  std::vector<UdpTransport*> takers;
  std::size_t next = 0;   // packet
  std::size_t taker = 0;  // the first one that has not got this packet

  bool isDone() const { return takers.empty() || next == frame->packets.count(); }
  void advance(std::size_t packets, std::size_t toTakers);
  bool remove(UdpTransport const& to);
  // Keeps the room of the list.
  void clear();
};

// One stream's path to one address, with what is on its way there.
struct UdpPath {
  std::shared_ptr<Pacer::Path> pace;
  PacedFrame current;
  // The newest frame, while another one is on its way.
  PacedFrame waiting;
  bool hasReplaced = false;  // what waits took the place of another frame
  std::chrono::steady_clock::time_point due{};
};

class UdpFanout : NonCopyable {
 public:
  using Clock = std::chrono::steady_clock;

  class Owner {
   public:
    // A packet was too long for the viewer's path: it lost the frame.
    virtual void exceedsMtu(UdpTransport& transport) KAVO_REQUIRES(eventLoopRole) = 0;
    // Out of memory: frames were lost.
    virtual void failed() KAVO_REQUIRES(eventLoopRole) = 0;

   protected:
    ~Owner() = default;
  };

  // Sends from the local address, unless it is empty.
  UdpFanout(TaskScheduler& scheduler, std::shared_ptr<Pacer> pacer, std::shared_ptr<DescriptorBudget> descriptors,
            std::string address, Owner& owner);

  // Opens the family's sockets if they are not open; onReport is called when RTCP, or an
  // error, has come on one. False when no sockets are available.
  bool open(int family, std::function<void(int socket)> onReport) KAVO_REQUIRES(eventLoopRole);
  UdpPorts const& ports(int family) const KAVO_REQUIRES(eventLoopRole) { return m_Families[indexOf(family)]->ports; }
  void close() KAVO_REQUIRES(eventLoopRole);

  // The viewers of an address share one.
  std::shared_ptr<UdpPath> pathTo(sockaddr_storage const& address) KAVO_REQUIRES(eventLoopRole);

  // See Transport::send(). While a frame is on its way the newest waits for its turn: a key
  // frame takes the place of one that waits, any other finds it taken.
  Transport::Outcome add(UdpTransport& to, FramePtr const& frame, Clock::time_point now) KAVO_REQUIRES(eventLoopRole);
  // Sends what may leave now; the rest follows by itself.
  void flush() KAVO_REQUIRES(eventLoopRole);
  void cancel(UdpTransport& to) KAVO_REQUIRES(eventLoopRole);
  void cancelAll() KAVO_REQUIRES(eventLoopRole);

 private:
  struct Family {
    DescriptorBudget::Share descriptors;
    UdpPorts ports;
    SocketWatch rtcp;
  };
  // What may leave now on a path: packets to all takers, or one packet to some.
  struct Burst {
    UdpPath* path;
    Frame* frame;
    int family;
    std::size_t first;
    std::size_t last;
    std::size_t bytes = 0;  // to each
    std::size_t takers = 0;

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
  // Used within flush() alone.
  std::vector<Burst> m_Bursts KAVO_GUARDED_BY(eventLoopRole);
  std::vector<UdpDestination*> m_Destinations KAVO_GUARDED_BY(eventLoopRole);
  std::vector<UdpTransport*> m_Exceeding KAVO_GUARDED_BY(eventLoopRole);
};

}  // namespace kavo::impl
