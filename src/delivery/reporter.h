// A stream's RTCP: reports to and from its viewers. Event-loop thread.
#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "delivery/stream.h"
#include "delivery/viewer.h"
#include "eventloop/loophandles.h"

namespace kavo::impl {

class Reporter : NonCopyable {
 public:
  using Clock = Viewer::Clock;
  using ViewerList = std::vector<std::unique_ptr<Viewer>>;

  // Also how long viewers may not know that the wall clock was set.
  static constexpr std::chrono::seconds interval{4};

  Reporter(TaskScheduler& scheduler, Stream& stream, ViewerList const& viewers);

  // Sends the viewer a report now, and all active viewers one every few seconds until stop().
  void start(Viewer& viewer) KAVO_REQUIRES(eventLoopRole);
  void stop() KAVO_REQUIRES(eventLoopRole) { m_Next.stop(); }
  // Sends an RTCP BYE if there is memory for it.
  void sendBye(Viewer& viewer) noexcept KAVO_REQUIRES(eventLoopRole);
  // Sends a report to a viewer whose connection has closed: an answer or an error shows
  // whether anything still listens on its port.
  void probe(Viewer& viewer) KAVO_REQUIRES(eventLoopRole);

  // Handles RTCP from the viewer, or whatever has arrived on one of our sockets.
  void handle(Viewer& viewer, std::span<std::uint8_t const> packet) KAVO_REQUIRES(eventLoopRole);
  void receive(int socket) KAVO_REQUIRES(eventLoopRole);

 private:
  struct SentReport {
    std::uint32_t ntpMiddle = 0;
    Clock::time_point time;
  };

  void sendToAll() KAVO_REQUIRES(eventLoopRole);
  // If it is remembered, an answer to it gives the round trip.
  std::vector<std::uint8_t> makeReport(bool isRemembered) KAVO_REQUIRES(eventLoopRole);
  void receiveErrors(int socket) KAVO_REQUIRES(eventLoopRole);
  Viewer* reporterAt(sockaddr_storage const& from, Clock::time_point now) KAVO_REQUIRES(eventLoopRole);
  std::optional<std::chrono::microseconds> roundTripOf(ReportBlock const& block, Clock::time_point now) const
      KAVO_REQUIRES(eventLoopRole);

  Stream& m_Stream;
  ViewerList const& m_Viewers;
  Timer m_Next;
  std::string const m_Cname;
  std::vector<std::uint8_t> m_Probe KAVO_GUARDED_BY(eventLoopRole);
  Clock::time_point m_ProbeMade KAVO_GUARDED_BY(eventLoopRole){};
  // Sent reports that receivers may refer to.
  std::array<SentReport, 64> m_Sent KAVO_GUARDED_BY(eventLoopRole){};
  std::size_t m_NextSent KAVO_GUARDED_BY(eventLoopRole) = 0;
};

}  // namespace kavo::impl
