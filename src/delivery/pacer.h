// Paces UDP to each address with a token bucket that all streams share.
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

  // The path to one address, modelled as a link of some rate with a queue in front of it:
  //
  //   queued(t) = queued(t0) + bytes sent - rate * (t - t0), clamped to 0 to 2 * burst: anything
  //               beyond has left or was dropped
  //   rate      = the larger of the usual rate and 1.1 times the demand, which is the size of all
  //               frames for the path in the last measuring period (at least a second)
  //   burst     = the usual burst * rate / the usual rate
  //   room(t)   = burst if nothing is queued, else 2/3 burst - queued(t), because we cannot see
  //               when the queue began to drain
  class Path : NonCopyable {
   public:
    Path(sockaddr_storage const& address, double rate, std::size_t burst)
        : m_Address(address), m_UsualRate(rate), m_UsualBurst(burst) {}

    sockaddr_storage const& address() const { return m_Address; }
    // Whether a frame of this size is sent at once because ordinary queues hold it.
    bool takesAtOnce(std::size_t bytes) const { return bytes <= m_UsualBurst; }
    bool isIdle(Clock::time_point now) const { return queued(now) == 0; }
    // How many bytes may be sent now, and how long until that many may.
    std::size_t room(Clock::time_point now) const;
    std::chrono::microseconds until(std::size_t bytes, Clock::time_point now) const;

    // Records a frame for one viewer at the address, sent or not; and packets actually sent.
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

  // paceMbit is the operator's setting in Mbit/s; 0: no pacing; nullopt: 100.
  explicit Pacer(std::optional<int> paceMbit);

  // The path to the address, whatever the port. Viewers on this machine get a path each: there
  // is no link to share, and the bottleneck is their socket.
  std::shared_ptr<Path> pathTo(sockaddr_storage const& address);

 private:
  double const m_Rate;
  std::size_t const m_Burst;
  std::size_t const m_LocalBurst;
  std::vector<std::weak_ptr<Path>> m_Paths;
};

}  // namespace kavo::impl
