// How fast UDP leaves for each address: a token bucket, which all streams share.
// Event-loop thread.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "base/noncopyable.h"

namespace kavo::impl {

class Pacer {
 public:
  using Clock = std::chrono::steady_clock;

  // The path to one address, taken for a link of a certain rate with a queue in front of it:
  //
  //   queued(t) = queued(t0) + bytes sent - rate * (t - t0), from 0 to 2 * burst: what would be
  //               more has left or was dropped
  //   rate      = the usual one, or 1.1 times what all frames for the path came to in the last
  //               second and more, if that is faster
  //   burst     = the usual one, as many times as large as the rate is faster
  //   room(t)   = burst where nothing is queued; else 2/3 burst - queued(t), since nothing shows
  //               how late the queue began to drain
  class Path : NonCopyable {
   public:
    Path(sockaddr_storage const& address, double rate, std::size_t burst)
        : m_Address(address), m_UsualRate(rate), m_UsualBurst(burst) {}

    sockaddr_storage const& address() const { return m_Address; }
    // Whether a frame of this size leaves at once, since ordinary queues take it.
    bool takesAtOnce(std::size_t bytes) const { return bytes <= m_UsualBurst; }
    bool isIdle(Clock::time_point now) const { return queued(now) == 0; }
    // Bytes that may leave now, and how long until so many may.
    std::size_t room(Clock::time_point now) const;
    std::chrono::microseconds until(std::size_t bytes, Clock::time_point now) const;

    // A frame for one viewer there, whether it will be sent or not; and packets that were sent.
    void offer(std::size_t bytes, std::size_t packets, Clock::time_point now);
    void sent(std::size_t bytes, std::size_t packets, Clock::time_point now);

   private:
    double rate() const;
    double queued(Clock::time_point now) const;
    double burst() const;

    sockaddr_storage const m_Address;
    double const m_UsualRate;  // bytes per microsecond
    std::size_t const m_UsualBurst;
    double m_Queued = 0;  // at m_Updated
    Clock::time_point m_Updated{};
    double m_Demand = 0;  // bytes per microsecond, in the last complete period
    double m_Offered = 0;
    Clock::time_point m_OfferedSince{};
  };

  // paceMbit is the operator's: Mbit/s, 0 for no pacing; without it 100.
  explicit Pacer(std::optional<int> paceMbit);

  // The one of the address, whatever the port. On this machine there is no link to share, and
  // each viewer has its own: the bottleneck is its socket.
  std::shared_ptr<Path> pathTo(sockaddr_storage const& address);

 private:
  double const m_Rate;
  std::size_t const m_Burst;
  std::size_t const m_LocalBurst;
  std::vector<std::weak_ptr<Path>> m_Paths;
};

}  // namespace kavo::impl
