// Sends interleaved frames and reports on one RTSP connection, between the responses.
// Never blocks; a viewer that lags loses whole frames, never parts of one.
// Event-loop thread.
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

  // A viewer that receives nothing for this long while something is queued is stalled.
  static constexpr std::chrono::seconds stallTimeout{10};
  // Frames queued for longer are dropped unless partly sent.
  static constexpr std::chrono::milliseconds maxAge{500};
  // Limit for frames queued after the one partly sent.
  static constexpr std::size_t maxWaiting = std::size_t{1024} * 1024;

  // The connection owns the socket. setWriteInterest lets it know whether to call flush()
  // when the socket becomes writable.
  InterleavedWriter(TaskScheduler& scheduler, int socket, std::function<void(bool)> setWriteInterest);

  // See Transport::send(). If the viewer lags too far, the channel's queue is dropped.
  Transport::Outcome sendFrame(FramePtr const& frame, std::uint8_t channel, Clock::time_point now)
      KAVO_REQUIRES(eventLoopRole);
  // Queues the report after pending frames; drops it if the channel has one queued already.
  void sendReport(std::span<std::uint8_t const> report, std::uint8_t channel) KAVO_REQUIRES(eventLoopRole);
  // Stops sending on the channel, except the rest of a frame partly sent.
  void cancel(std::uint8_t channel) KAVO_REQUIRES(eventLoopRole);

  // True if a response can be sent now: no frame is partly sent, and the socket has room
  // for the whole response. Otherwise holds back frames until both are true.
  bool prepareForResponse() KAVO_REQUIRES(eventLoopRole);

  void flush() KAVO_REQUIRES(eventLoopRole);
  // The connection has closed: everything sent from now on is dropped.
  void close() KAVO_REQUIRES(eventLoopRole);

  // Whether something is waiting for the socket or the path.
  bool isBlocked() const KAVO_REQUIRES(eventLoopRole) { return m_Blocked; }
  bool isStalled(Clock::time_point now) const KAVO_REQUIRES(eventLoopRole);
  // Whether the channel's viewer has received anything since the last call.
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
  std::size_t m_FrontOffset KAVO_GUARDED_BY(eventLoopRole) = 0;  // bytes of the first item already sent
  std::function<void(bool)> m_SetWriteInterest KAVO_GUARDED_BY(eventLoopRole);
  bool m_WriteInterest KAVO_GUARDED_BY(eventLoopRole) = false;
  Timer m_NextTry KAVO_GUARDED_BY(eventLoopRole);  // when the path has room again
  bool m_ResponseWaits KAVO_GUARDED_BY(eventLoopRole) = false;
  Clock::time_point m_LastProgress KAVO_GUARDED_BY(eventLoopRole) = Clock::now();  // of the queue
  std::bitset<256> m_Progress KAVO_GUARDED_BY(eventLoopRole);                      // channels
  std::vector<iovec> m_Rest KAVO_GUARDED_BY(eventLoopRole);                        // scratch space of write()
};

}  // namespace kavo::impl
