// The figures about streams and viewers, for the host and operators. Each event is reported
// to an observer once, which counts it.
#pragma once

#include <sys/socket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/noncopyable.h"

namespace kavo::impl {

enum class ViewerState { SetUp, Joining, AwaitingKeyFrame, Playing, Paused };

// Why a viewer left.
enum class Departure { TimedOut, Teardown, ConnectionClosed, Stalled, Unreachable, SessionRemoved, NotAllowed };

// The content of a viewer's reports.
struct Reception {
  std::uint8_t fractionLost = 0;  // in 1/256
  std::int32_t packetsLost = 0;
  std::uint32_t jitter = 0;  // in units of RTP time
  std::optional<std::chrono::microseconds> roundTrip;
};

class ViewerObserver;

// A stream's counters. All count frames, except SentBytes: bytes of RTP packets.
enum class Count {
  Offered,  // submitted
  Encoded,
  Unwatched,  // not encoded because nobody watched
  Skipped,    // by rate control
  Failed,
  QueueFull,  // not encoded because the queue was full
  KeyFramesRequested,
  SentFrames,
  SentBytes
};

// Observes one stream. Each counter has one writer at a time, a host thread or the event-loop
// thread; any thread may read it.
class StreamObserver : NonCopyable {
 public:
  using Clock = std::chrono::steady_clock;
  struct Description {
    std::string name;
    int codec = 0;
    int width = 0;
    int height = 0;
  };

  StreamObserver() = default;
  ~StreamObserver();
  // Any thread; call once. Adds the stream to the journal.
  void describe(Description description);
  Description const& description() const { return m_Description; }

  void add(Count count, std::uint64_t amount = 1) {
    auto& counter = m_Counts[static_cast<std::size_t>(count)];
    counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
  }
  std::uint64_t operator[](Count count) const {
    return m_Counts[static_cast<std::size_t>(count)].load(std::memory_order_relaxed);
  }
  // How many viewers play or are about to.
  std::uint32_t watching() const { return m_Watching.load(std::memory_order_relaxed); }

  // Event-loop thread.
  void delivered(Clock::time_point submitted) { m_Newest = submitted; }
  // The submit time of the newest frame delivered, if any.
  std::optional<Clock::time_point> newest() const { return m_Newest; }
  std::vector<ViewerObserver const*> const& viewers() const { return m_Viewers; }

 private:
  friend class ViewerObserver;

  Description m_Description;
  std::array<std::atomic<std::uint64_t>, static_cast<std::size_t>(Count::SentBytes) + 1> m_Counts{};
  std::atomic<std::uint32_t> m_Watching = 0;
  std::optional<Clock::time_point> m_Newest;
  std::vector<ViewerObserver const*> m_Viewers;
};

// The figures of one viewer.
struct ViewerFigures {
  std::string address;
  std::string user;
  bool overUdp;
  double since;  // seconds since 1970
  ViewerState state = ViewerState::SetUp;
  std::uint64_t framesSent = 0;
  std::uint64_t framesDropped = 0;
  std::uint64_t bytesSent = 0;
  Reception reception{};
  std::size_t maxPacket = 0;  // bytes; 0 on an RTSP connection
};

// Observes one viewer. Event-loop thread.
class ViewerObserver : NonCopyable {
 public:
  ViewerObserver(StreamObserver& stream, bool overUdp);
  ~ViewerObserver();

  ViewerFigures const& figures() const { return m_Figures; }

  void setAddress(sockaddr_storage const& address);
  void setUser(std::string const& user) { m_Figures.user = user; }
  void setMaxPacket(std::size_t bytes) { m_Figures.maxPacket = bytes; }
  void entered(ViewerState state);
  void joined() { note("joined", m_Figures.overUdp ? "udp" : "tcp"); }
  void left(Departure departure);
  void paused() { note("paused", ""); }
  void pathNarrowed(std::size_t maxPacket);
  // isBusy: whether something is still waiting for the viewer's path.
  void sent(std::size_t bytes, bool isBusy);
  void dropped(std::size_t frames);
  void reported(Reception const& reception) { m_Figures.reception = reception; }

 private:
  void note(char const* kind, std::string_view text) const noexcept;

  StreamObserver& m_Stream;
  ViewerFigures m_Figures;
  bool m_IsBehind = false;
};

}  // namespace kavo::impl
