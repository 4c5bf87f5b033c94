// What is sent on one RTSP connection besides responses: frames and reports,
// interleaved. Never blocks; a viewer that lags loses whole frames, never
// a part of one. Event-loop thread.
#pragma once

#include <bitset>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "delivery/frame.h"
#include "delivery/transport.h"
#include "eventloop/eventlooprole.h"
#include "eventloop/loophandles.h"

namespace kavo::impl {

class InterleavedWriter : NonCopyable {
 public:
  using Clock = Transport::Clock;

  // A viewer that takes nothing for this time while something waits for it is stalled.
  static constexpr std::chrono::seconds stallTimeout{10};
  // Frames that have waited longer are dropped, unless partly sent.
  static constexpr std::chrono::milliseconds maxAge{500};
  // Limit for frames queued after the one partly sent.
  static constexpr std::size_t maxWaiting = std::size_t{1024} * 1024;

  // The socket is the connection's. setWriteInterest says whether the owner is
  // to call flush() when the socket takes more.
  InterleavedWriter(TaskScheduler& scheduler, int socket, std::function<void(bool)> setWriteInterest);

  // See Transport::send(). Where the viewer lags too far, what waits on the channel is dropped.
  Transport::Outcome sendFrame(FramePtr const& frame, std::uint8_t channel, Clock::time_point now)
      KAVO_REQUIRES(eventLoopRole);
  // Queued after pending frames; dropped if one is queued already.
  void sendReport(std::span<std::uint8_t const> report, std::uint8_t channel) KAVO_REQUIRES(eventLoopRole);
  // Stops sending on the channel, except the rest of a frame partly sent.
  void cancel(std::uint8_t channel) KAVO_REQUIRES(eventLoopRole);

  // True when a response can be sent now: no frame is sent in part, and the
  // socket has room for the whole response. Otherwise holds frames back until it has.
  bool prepareForResponse() KAVO_REQUIRES(eventLoopRole);

  void flush() KAVO_REQUIRES(eventLoopRole);
  // The connection is gone: whatever is sent from now on is dropped.
  void close() KAVO_REQUIRES(eventLoopRole);

  // Whether something waits until the socket, or the path, takes it.
  bool isBlocked() const KAVO_REQUIRES(eventLoopRole) { return m_Blocked; }
  bool isStalled(Clock::time_point now) const KAVO_REQUIRES(eventLoopRole);
  // Whether the channel's viewer has taken anything since the last call.
  bool takeProgress(std::uint8_t channel) KAVO_REQUIRES(eventLoopRole);

 private:
  // A frame, or a report with its interleaved header.
  struct Waiting {
    FramePtr frame;
    std::vector<std::uint8_t> report;
    std::uint8_t channel;
    Clock::time_point since;
    bool cancelled = false;

    std::size_t size() const { return frame ? frame->packets.interleavedBytes() : report.size(); }
  };

  std::size_t firstUnsent() const KAVO_REQUIRES(eventLoopRole) { return m_FrontOffset > 0 ? 1 : 0; }
  bool isBehind(Frame const& next, std::uint8_t channel, Clock::time_point now) const KAVO_REQUIRES(eventLoopRole);
  std::size_t dropUnsent(std::uint8_t channel) KAVO_REQUIRES(eventLoopRole);
  void wait(Waiting waiting, std::size_t sent) KAVO_REQUIRES(eventLoopRole);
  void giveUp() KAVO_REQUIRES(eventLoopRole);
  bool hasRoom() KAVO_REQUIRES(eventLoopRole);
  void waitForSocket() KAVO_REQUIRES(eventLoopRole);
  void setWriteInterest(bool wanted) KAVO_REQUIRES(eventLoopRole);
  std::size_t write(std::span<iovec const> pieces, std::size_t skip, std::uint8_t channel) KAVO_REQUIRES(eventLoopRole);

  int m_Socket KAVO_GUARDED_BY(eventLoopRole);
  bool m_Blocked KAVO_GUARDED_BY(eventLoopRole) = false;
  std::vector<Waiting> m_Waiting KAVO_GUARDED_BY(eventLoopRole);
  std::size_t m_FrontOffset KAVO_GUARDED_BY(eventLoopRole) = 0;  // bytes of the first that were sent
  std::function<void(bool)> m_SetWriteInterest KAVO_GUARDED_BY(eventLoopRole);
  bool m_WriteInterest KAVO_GUARDED_BY(eventLoopRole) = false;
  Timer m_NextTry KAVO_GUARDED_BY(eventLoopRole);  // when the path takes more
  bool m_ResponseWaits KAVO_GUARDED_BY(eventLoopRole) = false;
  Clock::time_point m_LastProgress KAVO_GUARDED_BY(eventLoopRole) = Clock::now();  // of what waits
  std::bitset<256> m_Progress KAVO_GUARDED_BY(eventLoopRole);                      // channels
  std::vector<iovec> m_Rest KAVO_GUARDED_BY(eventLoopRole);                        // used within write() alone
};

}  // namespace kavo::impl
