// The viewers of a stream, and sending to all of them. Event-loop thread.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/policy.h"
#include "base/statuspage.h"
#include "base/uniquefd.h"
#include "delivery/interleavedwriter.h"
#include "delivery/lossrepair.h"
#include "delivery/pacer.h"
#include "delivery/udpports.h"
#include "delivery/udpsender.h"
#include "eventloop/eventlooprole.h"
#include "eventloop/socketwatch.h"
#include "eventloop/timer.h"
#include "rtp/rtcp.h"

namespace kavo::impl {

class Viewers;

// What all streams of a server share.
struct Delivery {
  Policy::Delivery policy;
  std::shared_ptr<Pacer> pacer = std::make_shared<Pacer>(policy.paceMbit);
};

// One client session's part in a stream, over UDP or on its RTSP connection. It
// stays where it is in memory until Viewers::remove().
//
//   SetUp --play--> AwaitingKeyFrame --key frame--> Playing
//     Playing --behind, or its path became narrower--> AwaitingKeyFrame
//     AwaitingKeyFrame, Playing --pause, or another took its ports--> Paused --play--> AwaitingKeyFrame
class Viewer {
 public:
  using Clock = std::chrono::steady_clock;
  enum class State { SetUp, AwaitingKeyFrame, Playing, Paused };

  // What its reports say.
  struct Reception {
    std::uint8_t fractionLost = 0;  // in 1/256
    std::int32_t packetsLost = 0;
    std::uint32_t jitter = 0;  // in units of RTP time
    std::optional<std::chrono::microseconds> roundTrip;
  };

  State state() const KAVO_REQUIRES(eventLoopRole) { return m_State; }
  bool isOverUdp() const KAVO_REQUIRES(eventLoopRole) { return m_Udp.address.ss_family != AF_UNSPEC; }
  // Wants frames, now or from the next key frame on.
  bool isActive() const KAVO_REQUIRES(eventLoopRole) {
    return m_State == State::AwaitingKeyFrame || m_State == State::Playing;
  }
  bool hasPlayed() const KAVO_REQUIRES(eventLoopRole) { return m_HasPlayed; }
  // Whether the packet that it gets next is known: not where it waits for a key frame behind others.
  bool isAnnounced() const KAVO_REQUIRES(eventLoopRole) { return m_State == State::Playing || m_IsAnnounced; }
  Reception const& reception() const KAVO_REQUIRES(eventLoopRole) { return m_Reception; }

  // The connection that a viewer over TCP sends on, and its other end; it gets nothing before.
  void attach(std::shared_ptr<InterleavedWriter> writer, sockaddr_storage const& peer) KAVO_REQUIRES(eventLoopRole);
  // Why it is about to go, for the status page. A literal.
  void setReasonToLeave(char const* why) KAVO_REQUIRES(eventLoopRole) { m_WhyLeft = why; }
  bool isAttachedTo(InterleavedWriter const& writer) const KAVO_REQUIRES(eventLoopRole) {
    return m_Writer.get() == &writer;
  }
  bool usesChannel(int channel) const KAVO_REQUIRES(eventLoopRole) {
    return !isOverUdp() && (channel == m_RtpChannel || channel == m_RtcpChannel);
  }

  // Calls the function whenever a report of the viewer has come.
  void onSignOfLife(std::function<void()> function) KAVO_REQUIRES(eventLoopRole) {
    m_OnSignOfLife = std::move(function);
  }
  // RTCP that arrived on its channels.
  void handleReport(std::span<std::uint8_t const> packet) KAVO_REQUIRES(eventLoopRole);
  // Whether it has taken anything over TCP since the last call: it is alive, even if it is silent.
  bool takeProgress() KAVO_REQUIRES(eventLoopRole) { return m_Writer && m_Writer->takeProgress(m_RtpChannel); }
  // Sends it a report from a socket of its own, which hears when nobody listens
  // there. True after two such answers.
  bool isUnreachable() KAVO_REQUIRES(eventLoopRole);
  // Sends RTCP BYE, if there is memory for it.
  void sayGoodbye() noexcept KAVO_REQUIRES(eventLoopRole);

 private:
  friend class Viewers;
  Viewer(Viewers& table, kv_status_transport transport);

  void enter(State state) KAVO_REQUIRES(eventLoopRole);
  void setAddress(sockaddr_storage const& address) KAVO_REQUIRES(eventLoopRole);
  void noteSent(std::size_t bytes) KAVO_REQUIRES(eventLoopRole);
  void noteDropped(std::size_t frames) KAVO_REQUIRES(eventLoopRole);
  void noteReport(std::uint64_t time) KAVO_REQUIRES(eventLoopRole);
  void noteEvent(kv_status_event_kind kind, std::string_view more) const noexcept KAVO_REQUIRES(eventLoopRole);

  Viewers& m_Table;
  State m_State KAVO_GUARDED_BY(eventLoopRole) = State::SetUp;
  // For the status page.
  status::ViewerPlace m_Place KAVO_GUARDED_BY(eventLoopRole);
  bool m_IsBehind KAVO_GUARDED_BY(eventLoopRole) = false;
  char const* m_WhyLeft KAVO_GUARDED_BY(eventLoopRole) = "timed out";
  std::string m_Address KAVO_GUARDED_BY(eventLoopRole);
  // Over TCP.
  std::uint8_t m_RtpChannel KAVO_GUARDED_BY(eventLoopRole) = 0;
  std::uint8_t m_RtcpChannel KAVO_GUARDED_BY(eventLoopRole) = 0;
  std::shared_ptr<InterleavedWriter> m_Writer KAVO_GUARDED_BY(eventLoopRole);
  // Over UDP.
  UdpDestination m_Udp KAVO_GUARDED_BY(eventLoopRole);
  std::shared_ptr<Pacer::Path> m_Path KAVO_GUARDED_BY(eventLoopRole);
  std::size_t m_MaxPacket KAVO_GUARDED_BY(eventLoopRole) = 0;
  sockaddr_storage m_RtcpAddress KAVO_GUARDED_BY(eventLoopRole){};
  // Where its reports come from, if not from there (behind NAT); network byte order.
  in_port_t m_ReportPort KAVO_GUARDED_BY(eventLoopRole) = 0;
  UniqueFd m_Probe KAVO_GUARDED_BY(eventLoopRole);
  int m_Refusals KAVO_GUARDED_BY(eventLoopRole) = 0;
  bool m_IsWelcome KAVO_GUARDED_BY(eventLoopRole) = false;  // to the newest frame
  bool m_IsAnnounced KAVO_GUARDED_BY(eventLoopRole) = true;
  // What its reports say.
  Clock::time_point m_LastReport KAVO_GUARDED_BY(eventLoopRole){};
  Reception m_Reception KAVO_GUARDED_BY(eventLoopRole);
  bool m_HasPlayed KAVO_GUARDED_BY(eventLoopRole) = false;
  LossRepair m_Repair KAVO_GUARDED_BY(eventLoopRole);
  std::function<void()> m_OnSignOfLife KAVO_GUARDED_BY(eventLoopRole);
};

class Viewers {
 public:
  using Clock = Viewer::Clock;

  static constexpr std::size_t smallestPacket = 512;
  // The wall clock may be set at any time; the next report tells receivers.
  static constexpr std::chrono::seconds reportInterval{4};

  struct Callbacks {
    std::function<void(bool)> wantKeyFrame;  // true: somebody waits for one; false: nobody any more
    std::function<void()> frameSent;         // the rest of a frame for which send() was false
    std::function<std::chrono::steady_clock::duration()>
        freshness;                           // how old a frame may be that whoever joins begins with
    std::function<SenderInfo()> senderInfo;  // of this moment
  };

  // The stream's record on the status page has to live as long as this.
  Viewers(TaskScheduler& scheduler, Delivery delivery, status::StreamPlace const& stream, Callbacks callbacks);

  // A viewer over UDP; null when no sockets are available. Ports in host byte order.
  Viewer* addUdp(sockaddr_storage const& address, std::uint16_t rtpPort, std::uint16_t rtcpPort)
      KAVO_REQUIRES(eventLoopRole);
  Viewer* addInterleaved(std::uint8_t rtpChannel, std::uint8_t rtcpChannel) KAVO_REQUIRES(eventLoopRole);
  void remove(Viewer& viewer) KAVO_REQUIRES(eventLoopRole);
  // The RTP port that viewers of the address family are sent to from, host byte order.
  std::uint16_t serverPort(int family) const KAVO_REQUIRES(eventLoopRole) {
    return m_Families[indexOf(family)]->ports.port();
  }

  // Its first frame is the one returned: the newest, where the viewer can begin with it and
  // it is fresh. Null: it is the next key frame.
  FramePackets const* play(Viewer& viewer) KAVO_REQUIRES(eventLoopRole);
  void pause(Viewer& viewer) KAVO_REQUIRES(eventLoopRole);

  bool empty() const KAVO_REQUIRES(eventLoopRole) { return m_Viewers.empty(); }
  bool anyActive() const KAVO_REQUIRES(eventLoopRole);
  // The size of RTP packet that all active viewers' paths take.
  std::size_t maxPacket() const KAVO_REQUIRES(eventLoopRole) { return m_MaxPacket; }
  // Whether any viewer takes such a frame.
  bool takes(bool keyFrame) const KAVO_REQUIRES(eventLoopRole);

  // Sends a frame to everybody who takes it. Small frames leave at once: true.
  // The rest of a large one follows at a pace; until frameSent() is called, packets
  // and payload stay as they are. So they do while isSending().
  bool send(FramePackets& packets, bool keyFrame) KAVO_REQUIRES(eventLoopRole);
  // Whoever is about to get the newest frame gets it now: the next one has come.
  void finishWelcome() KAVO_REQUIRES(eventLoopRole);
  // The packets of the newest frame are about to change, or to go.
  void forgetNewestFrame() KAVO_REQUIRES(eventLoopRole) { m_Newest = nullptr; }
  // Whether the packets are on their way: to everybody, or to somebody who has just joined.
  bool isSending(FramePackets const& packets) const KAVO_REQUIRES(eventLoopRole) { return m_Packets == &packets; }
  // No more frames come for a while: forgets the rest of the one that is being sent, too.
  void forgetFrames() KAVO_REQUIRES(eventLoopRole);
  // Forgets the rest of the frame, which others may reference: every viewer waits for a
  // key frame.
  void abandonFrame() KAVO_REQUIRES(eventLoopRole);

 private:
  friend class Viewer;
  struct Family {
    Family(TaskScheduler& scheduler, UdpPorts udpPorts, std::function<void(int)> receive)
        : ports(std::move(udpPorts)), rtcp(scheduler, ports.rtcpSocket(), std::move(receive)) {}

    UdpPorts ports;
    SocketWatch rtcp;
    std::vector<Viewer*> takers;  // of the frame that is being sent
  };
  struct SentReport {
    std::uint32_t ntpMiddle = 0;
    Clock::time_point time;
  };

  static std::size_t indexOf(int family) { return family == AF_INET6 ? 1 : 0; }

  bool openPorts(int family) KAVO_REQUIRES(eventLoopRole);
  bool canBeginWithNewest(Viewer const& viewer) const KAVO_REQUIRES(eventLoopRole);
  void takePortsFromOthers(Viewer const& viewer) KAVO_REQUIRES(eventLoopRole);
  void stopSending(Viewer& viewer) KAVO_REQUIRES(eventLoopRole);
  InterleavedFrame& frameOn(std::uint8_t channel, FramePackets& packets) KAVO_REQUIRES(eventLoopRole);
  void welcome() KAVO_REQUIRES(eventLoopRole);
  void sendInterleaved(Viewer& viewer, FramePackets& packets, bool keyFrame) KAVO_REQUIRES(eventLoopRole);
  bool sendBurst() KAVO_REQUIRES(eventLoopRole);
  void sendOverUdp(Family& family, std::size_t first, std::size_t last) KAVO_REQUIRES(eventLoopRole);
  void narrow(Viewer& viewer) KAVO_REQUIRES(eventLoopRole);
  void fitPackets() KAVO_REQUIRES(eventLoopRole);
  void noteInterval() KAVO_REQUIRES(eventLoopRole);
  bool beginFrame(FramePackets& packets, std::span<Viewer* const> takers) KAVO_REQUIRES(eventLoopRole);
  bool beginFollowing() KAVO_REQUIRES(eventLoopRole);
  void continueFrame() KAVO_REQUIRES(eventLoopRole);
  void endFrame() KAVO_REQUIRES(eventLoopRole);
  void drop() KAVO_REQUIRES(eventLoopRole);
  void addShare(Pacer::Path& path) KAVO_REQUIRES(eventLoopRole);
  void leaveShare(Pacer::Path& path) KAVO_REQUIRES(eventLoopRole);
  bool isPaced() const KAVO_REQUIRES(eventLoopRole);
  std::size_t allowance(Clock::time_point now) const KAVO_REQUIRES(eventLoopRole);
  std::chrono::microseconds untilNextBurst(Clock::time_point now) const KAVO_REQUIRES(eventLoopRole);

  void sendReports() KAVO_REQUIRES(eventLoopRole);
  std::vector<std::uint8_t> makeReport(bool bye) KAVO_REQUIRES(eventLoopRole);
  void sendReport(Viewer& viewer, std::span<std::uint8_t const> report) KAVO_REQUIRES(eventLoopRole);
  void receiveReports(int socket) KAVO_REQUIRES(eventLoopRole);
  Viewer* reporterAt(sockaddr_storage const& from, Clock::time_point now) KAVO_REQUIRES(eventLoopRole);
  bool needsRepair(Viewer& viewer, Clock::time_point now) const KAVO_REQUIRES(eventLoopRole);
  void note(Viewer& viewer, ReceiverReport const& report, Clock::time_point now) KAVO_REQUIRES(eventLoopRole);

  TaskScheduler& m_Scheduler;
  Delivery const m_Delivery;
  status::StreamPlace const& m_Stream;
  Callbacks m_Callbacks;
  std::vector<std::unique_ptr<Viewer>> m_Viewers KAVO_GUARDED_BY(eventLoopRole);
  // IPv4 and IPv6, opened for the first viewer that needs it.
  std::unique_ptr<Family> m_Families[2] KAVO_GUARDED_BY(eventLoopRole);

  std::size_t m_MaxPacket KAVO_GUARDED_BY(eventLoopRole) = m_Delivery.policy.maxPacket;

  bool m_HasDeltaFrames KAVO_GUARDED_BY(eventLoopRole) = false;  // which a lost packet damages until the next key frame
  bool m_IsKeyFrame KAVO_GUARDED_BY(eventLoopRole) = false;      // the newest frame, complete or not
  FramePackets* m_Newest KAVO_GUARDED_BY(eventLoopRole) = nullptr;  // the newest complete one, if it is a key frame
  // The frame that is on its way over UDP, and the one that is to follow it: while the
  // newest goes to somebody who has just joined, the next may come.
  FramePackets* m_Packets KAVO_GUARDED_BY(eventLoopRole) = nullptr;
  FramePackets* m_Following KAVO_GUARDED_BY(eventLoopRole) = nullptr;
  bool m_SinkWaits KAVO_GUARDED_BY(eventLoopRole) = false;  // for frameSent()
  std::size_t m_NextPacket KAVO_GUARDED_BY(eventLoopRole) = 0;
  std::vector<InterleavedFrame> m_InterleavedFrames KAVO_GUARDED_BY(eventLoopRole);  // one a channel
  std::vector<Viewer*> m_Playing KAVO_GUARDED_BY(eventLoopRole);                     // over UDP
  std::vector<UdpDestination*> m_Destinations KAVO_GUARDED_BY(eventLoopRole);
  UdpSender m_Sender KAVO_GUARDED_BY(eventLoopRole);
  // Pacing.
  struct Share {
    Pacer::Path* path;  // which the viewers own
    std::size_t viewers;
    double need;
  };
  Timer m_NextBurst;
  Timer m_Welcome;
  Clock::time_point m_FrameBegin KAVO_GUARDED_BY(eventLoopRole){};
  std::chrono::microseconds m_FrameInterval KAVO_GUARDED_BY(eventLoopRole){40000};
  std::size_t m_BytesSent KAVO_GUARDED_BY(eventLoopRole) = 0;  // of the frame
  std::vector<Share> m_Shares KAVO_GUARDED_BY(eventLoopRole);  // of its takers
  // RTCP.
  Timer m_NextReport;
  std::string m_Cname;
  std::array<SentReport, 16> m_SentReports KAVO_GUARDED_BY(eventLoopRole){};
  std::size_t m_NextSentReport KAVO_GUARDED_BY(eventLoopRole) = 0;
};

}  // namespace kavo::impl
