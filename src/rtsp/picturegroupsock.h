// A groupsock that sends picture by picture: it gathers the packets of one, which
// are the same for all viewers, and hands each viewer all of them at once.
// Event-loop thread.
#pragma once

#include <Groupsock.hh>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "base/descriptor.h"
#include "delivery/packetrun.h"
#include "delivery/udpsender.h"
#include "eventloop/eventlooprole.h"
#include "rtsp/tcpviewers.h"

namespace kavo {

class PictureGroupsock : public Groupsock {
 public:
  using Clock = std::chrono::steady_clock;

  struct Callbacks {
    std::function<void()> keyPictureWanted;  // a viewer lost what the next pictures build on
    std::function<void(sockaddr_storage const&)> pathTooNarrow;
  };

  PictureGroupsock(UsageEnvironment& env, sockaddr_storage const& address, Port port,
                   std::shared_ptr<TcpViewers const> tcpViewers, Callbacks callbacks) KAVO_REQUIRES(eventLoopRole);
  ~PictureGroupsock() override;

  void addDestination(sockaddr_storage const& address, Port const& port, unsigned sessionId) override;
  void removeDestination(unsigned sessionId) override;
  Boolean output(UsageEnvironment& env, unsigned char* buffer, unsigned size) override;

  // Of a picture some packets have come, and not yet the last.
  bool isInsidePicture() const KAVO_REQUIRES(eventLoopRole) { return !m_Picture.sizes.empty(); }

 private:
  struct TcpDestination {
    std::shared_ptr<InterleavedWriter> output;
    std::uint8_t channel;
  };
  struct Joining {
    sockaddr_storage address;
    Port port;
  };

  void addPacket(std::span<std::uint8_t const> packet) KAVO_REQUIRES(eventLoopRole);
  void beginPicture(std::span<std::uint8_t const> firstPacket) KAVO_REQUIRES(eventLoopRole);
  void endPicture() KAVO_REQUIRES(eventLoopRole);
  void noteInterval() KAVO_REQUIRES(eventLoopRole);
  void cut(PacketRun picture) KAVO_REQUIRES(eventLoopRole);
  void sendCut() KAVO_REQUIRES(eventLoopRole);
  void sendOverUdp(PacketRun const& run) KAVO_REQUIRES(eventLoopRole);
  void sendOverTcp(PacketRun const& picture) KAVO_REQUIRES(eventLoopRole);
  void sendReport(std::span<std::uint8_t const> report) KAVO_REQUIRES(eventLoopRole);
  void listAddresses() KAVO_REQUIRES(eventLoopRole);
  int socketFor(int family) KAVO_REQUIRES(eventLoopRole);

  int m_Family;
  Port m_Port;
  std::shared_ptr<TcpViewers const> m_TcpViewers;
  Callbacks m_Callbacks;
  Descriptor m_OtherFamily;  // of the same port, opened for the first viewer who needs it
  UdpSender m_Sender;
  std::map<unsigned, sockaddr_storage> m_UdpDestinations;
  std::vector<sockaddr_storage> m_Addresses[2];  // of IPv4 and IPv6, for the sender
  std::map<unsigned, TcpDestination> m_TcpDestinations;
  std::map<unsigned, Joining> m_Joining;  // from the next picture on

  PacketRun m_Picture;  // the packets that have come of it
  std::uint32_t m_Timestamp = 0;
  std::deque<PacketRun> m_Cuts;  // waiting for their time
  TaskToken m_CutTask = nullptr;
  Clock::time_point m_LastPicture{};
  std::chrono::microseconds m_Interval{40000};  // between pictures
  std::chrono::microseconds m_Gap{};            // between the cuts of one
};

}  // namespace kavo
